// Messages on a socket that carry open descriptors to another process.
//
// Also used in a process that shares its parent's memory: these functions keep no state. Both block where the socket
// does.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_DESCRIPTOR_PASSING_H_
#define KESTRUN_PLATFORM_LINUX_BASE_DESCRIPTOR_PASSING_H_

#include <sys/types.h>

#include <cstddef>

namespace kestrun::platform {

// In one message: as many as the kernel takes.
inline constexpr std::size_t kMaxPassedDescriptors = 253;

// Sends at least one byte, with 1 to kMaxPassedDescriptors descriptors. How many bytes went, or -1 with errno; goes on
// after a signal.
ssize_t SendDescriptors(int socket, const void* data, std::size_t size, const int* descriptors, std::size_t count);

// As recvmsg, which a signal may end with EINTR; `count` is the number of descriptors that came along. They are closed
// on exec, and belong to the caller.
ssize_t ReceiveDescriptors(int socket, void* data, std::size_t size, int (&descriptors)[kMaxPassedDescriptors],
                           std::size_t& count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_DESCRIPTOR_PASSING_H_
