// The layout of the object table: a file that every process of the user maps and works on directly.
//
// Constants, structures and the names of files; what is done with them stands in object_slots.h, process_slots.h and
// object_table.h. Everything here is read and written by all processes that use the folder.
//
// Byte ranges of the file also serve as locks, independently of the data at those offsets. The kernel drops such a lock
// when its holder ends, in whatever way:
//
//   kGateByte           held for a moment by the process that enters the table or sweeps it
//   kHubBytes + n       hub n belongs to the process that has it locked (wait_hub.h)
//   kProcessBytes + n   process slot n belongs to the process that has it locked, which is alive
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_LAYOUT_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_LAYOUT_H_

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/linux/objects/process_set.h"
#include "platform/linux/objects/wait_words.h"

namespace kestrun::platform {

// Bump it with every change that lets a build misread what another build has written: a field, a constant, the meaning
// of a value or of a lock byte, the hash of names. Builds of different versions then use tables of their own, and don't
// see each other's objects. The size of the layout stands in the file name as well, and takes care of other C
// libraries.
inline constexpr unsigned kObjectLayoutVersion = 1;

inline constexpr unsigned kMaxObjects = 8192;
inline constexpr unsigned kObjectBuckets = 128;
inline constexpr unsigned kMachineHubs = 64;
// Constant also where the system's pages are larger.
inline constexpr std::size_t kLayoutPage = 4096;

inline constexpr off_t kGateByte = 0;
inline constexpr off_t kHubBytes = 4096;
inline constexpr off_t kProcessBytes = 8192;

// The state of an object. An object without a name has it in the memory of its process and not in the table.
struct ObjectHeader {
  std::uint32_t kind;       // ObjectKind
  std::uint32_t parameter;  // event: 1 for manual reset; semaphore: the maximum
  std::uint64_t dataSize;   // of a mapping, whose data is a file of its own; else 0
  std::uint32_t nameLength;
  char name[268];  // with the mark of its name space
  alignas(64) WaitState state;
  alignas(64) pthread_mutex_t mutex;     // of a mutex
  std::atomic<std::uint32_t> abandoned;  // of a mutex: its owner's thread ended without releasing it
};

enum class SlotPhase : std::uint8_t { kFree = 0, kClaimed = 1, kLive = 2, kDead = 3 };

// The word of a slot that changes in one step when the slot goes from one phase to the next.
struct SlotState {
  std::uint32_t generation;  // counts the objects that the slot has served
  std::uint16_t owner;       // process slot; of a claimed one
  SlotPhase phase;

  static SlotState Of(std::uint64_t word) {
    return {static_cast<std::uint32_t>(word >> 32), static_cast<std::uint16_t>(word >> 8),
            static_cast<SlotPhase>(word & 0xFF)};
  }
  std::uint64_t Word() const {
    return std::uint64_t{generation} << 32 | std::uint64_t{owner} << 8 | static_cast<std::uint64_t>(phase);
  }
  SlotState In(SlotPhase next) const { return {generation, 0, next}; }
  SlotState ClaimedBy(unsigned process) const {
    return {generation, static_cast<std::uint16_t>(process), SlotPhase::kClaimed};
  }
};

struct ObjectSlot {
  ObjectHeader header;
  std::atomic<std::uint32_t> next;  // in the chain: 1 + the slot's number, or 0; guarded by the bucket
  std::uint32_t bucket;
  alignas(64) ProcessSet held;
  ProcessSet pinned;
};

struct alignas(64) ObjectBucket {
  pthread_mutex_t mutex;             // robust
  std::atomic<std::uint32_t> first;  // as ObjectSlot::next; guarded by mutex
};

struct ObjectLayout {
  std::uint64_t serial;                  // of the table's last start; stands in the names of its data files
  pthread_mutex_t growth;                // robust
  std::atomic<std::uint32_t> used;       // slots that have ever been claimed; guarded by growth
  std::atomic<std::uint32_t> reserved;   // slots that the file has room for; guarded by growth
  std::atomic<std::uint32_t> firstFree;  // a hint where to begin a search
  alignas(kLayoutPage) HubWord hubs[kMachineHubs];
  ObjectBucket buckets[kObjectBuckets];
  alignas(kLayoutPage) std::atomic<std::uint8_t> hasMarks[kMaxProcesses];  // by process slot; see process_slots.h
  std::atomic<std::uint64_t> states[kMaxObjects];                          // SlotState
  alignas(kLayoutPage) ObjectSlot slots[kMaxObjects];                      // the file grows with their use
};

// All that lies before the slots; a table's file always has room for it.
inline constexpr std::size_t kFixedLayoutSize = offsetof(ObjectLayout, slots);

// Leaf names in the folder of objects.
std::string TableFileName();
std::string DataFileName(std::uint64_t serial, unsigned slot);

unsigned BucketOf(std::string_view name);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_LAYOUT_H_
