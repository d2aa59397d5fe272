#include "platform/linux/base/descriptor_passing.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace kestrun::platform {

ssize_t SendDescriptors(int socket, const void* data, std::size_t size, const int* descriptors, std::size_t count) {
  iovec part{const_cast<void*>(data), size};
  // On the stack and of the largest size, so that nothing has to be allocated for a message.
  alignas(cmsghdr) char control[CMSG_SPACE(kMaxPassedDescriptors * sizeof(int))] = {};
  msghdr header = {};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* const attached = CMSG_FIRSTHDR(&header);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(count * sizeof(int));
  std::memcpy(CMSG_DATA(attached), descriptors, count * sizeof(int));
  ssize_t sent = 0;
  do {
    sent = sendmsg(socket, &header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

ssize_t ReceiveDescriptors(int socket, void* data, std::size_t size, int (&descriptors)[kMaxPassedDescriptors],
                           std::size_t& count) {
  count = 0;
  iovec part{data, size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)];
  msghdr header = {};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  // Close-on-exec from the start: a child that another thread forks at this moment must not keep the descriptors.
  const ssize_t length = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
  if (length <= 0) return length;
  const cmsghdr* const attached = CMSG_FIRSTHDR(&header);
  if (attached != nullptr && attached->cmsg_type == SCM_RIGHTS) {
    count = (attached->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    std::memcpy(descriptors, CMSG_DATA(attached), count * sizeof(int));
  }
  return length;
}

}  // namespace kestrun::platform
