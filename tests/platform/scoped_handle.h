#ifndef KESTRUN_TESTS_PLATFORM_SCOPED_HANDLE_H_
#define KESTRUN_TESTS_PLATFORM_SCOPED_HANDLE_H_

#include <utility>

#include "platform/win32.h"

namespace kestrun::test {

// Closes a handle at the end of its scope.
class ScopedHandle {
 public:
  ScopedHandle(HANDLE handle = nullptr) : handle_(handle) {}  // NOLINT: a handle is what it stands for
  ScopedHandle(ScopedHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~ScopedHandle() { Close(); }

  operator HANDLE() const { return handle_; }
  void Close() {
    if (handle_) CloseHandle(handle_);
    handle_ = nullptr;
  }

 private:
  HANDLE handle_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_SCOPED_HANDLE_H_
