// A value that is made once and never destroyed, because threads may still use it while the process exits.
//
// For static variables inside functions, which the compiler makes on first use, under a lock. The order in which static
// objects are destroyed at exit is then of no interest. The memory is part of the variable, so leak checkers see what
// it refers to.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_NEVER_DESTROYED_H_
#define KESTRUN_PLATFORM_LINUX_BASE_NEVER_DESTROYED_H_

#include <new>
#include <utility>

namespace kestrun::platform {

template <class T>
class NeverDestroyed {
 public:
  template <class... Args>
  explicit NeverDestroyed(Args&&... args) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_NEVER_DESTROYED_H_
