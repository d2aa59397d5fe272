#include "platform/linux/files/file_object.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace kestrun::platform {

namespace {

// True if the call that has just failed is to be repeated; otherwise the last error is set. If the descriptor would
// block (EAGAIN) this waits until it is ready: O_NONBLOCK belongs to the open file, so another process that shares a
// standard stream may have set it.
bool MayTryAgain(int descriptor, short events) {
  if (errno == EINTR) return true;
  if (errno == EAGAIN) {
    pollfd wait{descriptor, events, 0};
    return poll(&wait, 1, -1) >= 0 || errno == EINTR;
  }
  if (errno == EBADF) {
    SetLastError(ERROR_ACCESS_DENIED);  // the descriptor is open, but not for this direction
  } else {
    SetLastError(errno == EPIPE ? ERROR_NO_DATA : Win32ErrorFromErrno(errno));
  }
  return false;
}

}  // namespace

bool FileObject::Read(void* buffer, DWORD count, DWORD* read) {
  *read = 0;
  for (;;) {
    const ssize_t got = ::read(Descriptor(), buffer, count);
    if (got >= 0) {
      *read = static_cast<DWORD>(got);
      return true;
    }
    if (!MayTryAgain(Descriptor(), POLLIN)) return false;
  }
}

bool FileObject::Write(const void* buffer, DWORD count, DWORD* written) {
  *written = 0;
  // A pipe may take a part at a time.
  while (*written < count) {
    const ssize_t put = ::write(Descriptor(), static_cast<const char*>(buffer) + *written, count - *written);
    if (put >= 0) {
      *written += static_cast<DWORD>(put);
    } else if (!MayTryAgain(Descriptor(), POLLOUT)) {
      return false;
    }
  }
  return true;
}

bool FileObject::Peek(void*, DWORD, DWORD*, DWORD*) {
  SetLastError(ERROR_INVALID_FUNCTION);
  return false;
}

}  // namespace kestrun::platform
