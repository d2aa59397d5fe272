// The zygote: the helper process from which a process gets supervisors for its tools.
//
// It is this very program, started by zygote_client.cc under the name and with the argument of helper_protocol.h, with
// one end of a socket pair as descriptor kHelperSocket. It never comes to main. It has one thread, and little memory to
// copy, so it forks quickly.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_ZYGOTE_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_ZYGOTE_H_

namespace kestrun::platform {

// Reads a HelloMessage and then SupervisorRequests from the socket, and exits once the socket has ended and nothing is
// left below this process. Exits with 127 if no HelloMessage comes.
[[noreturn]] void RunZygote(int socket);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_ZYGOTE_H_
