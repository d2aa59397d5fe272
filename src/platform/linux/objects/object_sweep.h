// The sweep of an object table: reclaims what killed processes left in it.
//
// Objects of dead processes can't be opened any more in any case; a sweep gives back their slots and data files, and
// the process slots of the dead.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SWEEP_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SWEEP_H_

#include "platform/linux/objects/object_slots.h"
#include "platform/linux/objects/process_slots.h"

namespace kestrun::platform {

// True once a minute for one of the processes that use the folder: the caller is to sweep now. The folder remembers the
// last time in the change time of a file. Cheap enough to be called for each new object; may be called from any thread.
bool SweepIsDue();

// Under the gate. Leaves out what lies behind a lock that a stopped process keeps, for a later sweep. Gives the number
// of object slots and process slots that are free again.
int SweepTable(ObjectLayout& layout, const ProcessSlots& processes, ObjectSlots& slots);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_SWEEP_H_
