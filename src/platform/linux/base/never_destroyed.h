// A value that is made once and never destroyed, because threads may still use it while the process exits.
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
