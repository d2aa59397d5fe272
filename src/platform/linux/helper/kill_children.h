// Ends the children of this process, found in /proc: the way in which a helper ends what was left to it.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_

#include <sys/types.h>

#include <cstddef>

namespace kestrun::platform {

// Kills every child of this process but the `count` ids in `spared`. Grandchildren whose parents die come to a helper
// as its own children later. If a child is in the process group `group`, the whole group is killed: as long as that
// child is not waited for, the number can't be another group's. 0 is no group.
//
// For a process with one thread, which alone waits for its children: their ids then stay theirs meanwhile.
void KillChildren(pid_t group, const pid_t* spared, std::size_t count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_
