// The handles of this process: small multiples of 4, the lowest free one first, each naming an Object.
//
// All functions may be called from any thread. Looking a handle up takes a lock of that handle alone, so that threads
// that use different handles do not wait for one another. 0 and INVALID_HANDLE_VALUE are never given out;
// GetCurrentProcess (-1) and GetCurrentThread (-2) stand for objects that are not in the table and need no closing.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_HANDLE_TABLE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_HANDLE_TABLE_H_

#include <sys/resource.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "platform/linux/base/object.h"

namespace kestrun::platform {

inline const HANDLE kCurrentThreadHandle = reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-2));

// A new handle on the object; null with ERROR_TOO_MANY_OPEN_FILES when there are no more.
HANDLE AllocateHandle(std::shared_ptr<Object> object);

// The object behind a handle, the two pseudo handles included; null with ERROR_INVALID_HANDLE if there is none.
std::shared_ptr<Object> LookUpObject(HANDLE handle);

// The same for objects of class T; null with ERROR_INVALID_HANDLE for an object of another class. A class that is the
// only one of its kind says so by `static constexpr ObjectKind kKind`, which saves the dynamic cast.
template <class T>
std::shared_ptr<T> LookUp(HANDLE handle) {
  std::shared_ptr<Object> object = LookUpObject(handle);
  if (!object) return nullptr;
  T* found = nullptr;
  if constexpr (std::is_same_v<T, Waitable>) {
    found = object->AsWaitable();
  } else if constexpr (requires { T::kKind; }) {
    if (object->kind() == T::kKind) found = static_cast<T*>(object.get());
  } else {
    found = dynamic_cast<T*>(object.get());
  }
  if (!found) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return std::shared_ptr<T>(std::move(object), found);
}

// Takes the handle out of the table, as CloseHandle does. False with ERROR_INVALID_HANDLE if there was none.
bool ReleaseHandle(HANDLE handle);

// Sets the object of the pseudo handle -1. To be called once, before threads use the handle; until then it can't be
// looked up.
void SetCurrentProcessObject(std::shared_ptr<Object> object);

// The limit of descriptors as it was when this process started, with which tools are started. The first handle raises
// the soft limit to the hard one, since a master needs many.
rlimit OriginalDescriptorLimit();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_HANDLE_TABLE_H_
