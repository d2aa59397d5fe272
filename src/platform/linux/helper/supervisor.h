// The supervisor: the process above a tool. It adopts the processes that the tool leaves behind, and ends them when it
// is told to, or when the process that it works for dies. It runs one tool after another.
//
// Forked by the zygote (zygote.cc), with one thread and no other descriptor than the control socket and /dev/null.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_SUPERVISOR_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_SUPERVISOR_H_

namespace kestrun::platform {

// Serves the control socket by the protocol of helper_protocol.h, and exits once the socket has ended and nothing is
// left below this process.
[[noreturn]] void RunSupervisor(int control);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_SUPERVISOR_H_
