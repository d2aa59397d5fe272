// Owners of system handles. Kernel objects and files have different invalid values, so they have different owners:
// UniqueHandle for what is null when invalid, UniqueFile for what is -1 (INVALID_HANDLE_VALUE).
//
// Closing keeps the thread's last error, so that an owner that goes out of scope on a failure path does not overwrite
// the error that is about to be reported.
#ifndef KESTRUN_RUNTIME_BASE_HANDLE_H_
#define KESTRUN_RUNTIME_BASE_HANDLE_H_

#include "platform/win32.h"

namespace kestrun {

// Closes the handle and keeps the last error if that worked. False if the system refused.
bool CloseQuietly(HANDLE handle);

struct KernelHandleTraits {
  static HANDLE Invalid() { return nullptr; }
};

struct FileHandleTraits {
  static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
};

template <class Traits>
class BasicHandle {
 public:
  BasicHandle() = default;
  explicit BasicHandle(HANDLE handle) : handle_(handle) {}
  BasicHandle(BasicHandle&& other) noexcept : handle_(other.Release()) {}
  BasicHandle& operator=(BasicHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  BasicHandle(const BasicHandle&) = delete;
  BasicHandle& operator=(const BasicHandle&) = delete;
  ~BasicHandle() { Reset(); }

  HANDLE Get() const { return handle_; }
  bool IsValid() const { return handle_ != Traits::Invalid(); }
  explicit operator bool() const { return IsValid(); }

  // Gives the handle away: the caller closes it.
  HANDLE Release() {
    HANDLE handle = handle_;
    handle_ = Traits::Invalid();
    return handle;
  }

  // Closes what it holds and takes `handle` instead. True unless closing failed.
  bool Reset(HANDLE handle = Traits::Invalid()) {
    HANDLE old = handle_;
    handle_ = handle;
    return old == Traits::Invalid() || CloseQuietly(old);
  }

 private:
  HANDLE handle_ = Traits::Invalid();
};

using UniqueHandle = BasicHandle<KernelHandleTraits>;
using UniqueFile = BasicHandle<FileHandleTraits>;

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_HANDLE_H_
