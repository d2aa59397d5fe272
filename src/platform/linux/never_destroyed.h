// A value that is made once and never destroyed, for what threads may still use while the process ends.
#ifndef KESTRUN_PLATFORM_LINUX_NEVER_DESTROYED_H_
#define KESTRUN_PLATFORM_LINUX_NEVER_DESTROYED_H_

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

#endif  // KESTRUN_PLATFORM_LINUX_NEVER_DESTROYED_H_
