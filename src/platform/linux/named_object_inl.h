// The templates of named_object.h.
#ifndef KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_INL_H_
#define KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_INL_H_

#include "platform/linux/handle_table.h"
#include "platform/linux/named_object.h"

namespace kestrun::platform {

template <class T>
HANDLE CreateStored(const char* name, const NamedObject::Initialise& initialise) {
  std::shared_ptr<T> object;
  bool existed = false;
  if (HasName(name)) {
    std::unique_ptr<NamedObject> hold = NamedObject::CreateOrOpen(T::kKind, name, 0, initialise, &existed);
    if (!hold) return nullptr;
    std::shared_ptr<ObjectHeader> memory = hold->memory();
    object = std::make_shared<T>(std::move(memory), std::move(hold));
  } else {
    auto memory = std::make_shared<ObjectHeader>();
    initialise(*memory);
    object = std::make_shared<T>(std::move(memory), nullptr);
  }
  const HANDLE handle = AllocateHandle(object);
  if (handle) SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return handle;
}

template <class T>
HANDLE OpenStored(const char* name) {
  if (!HasName(name)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  std::unique_ptr<NamedObject> hold = NamedObject::Open(T::kKind, name);
  if (!hold) return nullptr;
  std::shared_ptr<ObjectHeader> memory = hold->memory();
  return AllocateHandle(std::make_shared<T>(std::move(memory), std::move(hold)));
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_INL_H_
