// How a process that is no child of this one has ended.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_PROCESS_END_H_
#define KESTRUN_PLATFORM_LINUX_BASE_PROCESS_END_H_

#include <cstdint>

#include "platform/local_stream.h"

namespace kestrun::platform {

// For a process whose pidfd has become readable; -1 where there is none, and then nothing is known. While its parent
// has not waited for it, /proc still tells; from Linux 6.15 on the pidfd tells the exit code, and no times, after that.
ProcessEnd ReadProcessEnd(std::uint32_t processId, int pidfd);

// The parent of a process, several times faster than from /proc. 0 where the kernel does not tell (before Linux 6.13),
// and for a process that is not there.
std::uint32_t ParentByPidfd(std::uint32_t processId);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_PROCESS_END_H_
