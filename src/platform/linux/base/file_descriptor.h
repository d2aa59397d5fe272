#ifndef KESTRUN_PLATFORM_LINUX_BASE_FILE_DESCRIPTOR_H_
#define KESTRUN_PLATFORM_LINUX_BASE_FILE_DESCRIPTOR_H_

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kestrun::platform {

// Owns a descriptor of the kernel; -1 means none.
//
// Moved, never copied, and not safe for several threads at once. Closing leaves errno alone, so that an error that is
// being reported survives the clean-up.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ~FileDescriptor() { Reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old < 0) return;
    const int error = errno;
    close(old);
    errno = error;
  }

 private:
  int fd_ = -1;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_FILE_DESCRIPTOR_H_
