// Ends the children of this process, which it finds in /proc. A helper ends in this way the processes that it has
// adopted.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_

#include <sys/types.h>

#include <cstddef>

namespace kestrun::platform {

// Kills every child of this process except for the `count` ids in `spared`. Grandchildren become children of the helper
// when their parents die, so the caller repeats the call until none is left. If a child is in the process group
// `group`, the whole group is killed: as long as that child was not waited for, no other group can have the number. 0
// means no group.
//
// For a process with one thread: no other thread can then wait for a child between the look at /proc and the kill,
// after which the id could belong to another process.
void KillChildren(pid_t group, const pid_t* spared, std::size_t count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_KILL_CHILDREN_H_
