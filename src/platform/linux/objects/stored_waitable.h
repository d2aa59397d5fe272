// Events, mutexes and semaphores: waitable objects whose state is an ObjectHeader. The header of an object with a name
// is in the object table, that of an object without a name in the memory of the process.
//
// A StoredWaitable is owned by its handles and by the calls that use it, and keeps its header alive. All functions may
// be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_STORED_WAITABLE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_STORED_WAITABLE_H_

#include <sys/types.h>

#include <memory>

#include "platform/linux/objects/handle_table.h"
#include "platform/linux/objects/named_object.h"
#include "platform/linux/objects/waitable.h"

namespace kestrun::platform {

class StoredWaitable : public Waitable {
 public:
  void LastHandleClosed() override;
  std::uint32_t HandleCount() override;

 protected:
  StoredWaitable(ObjectKind kind, std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : Waitable(kind, &memory->state, name ? Scope::kMachine : Scope::kProcess),
        memory_(std::move(memory)),
        name_(std::move(name)) {}

  const std::shared_ptr<ObjectHeader> memory_;

 private:
  const std::unique_ptr<NamedObject> name_;
};

// The thread that owns the mutex, 0 if none does. False if the handle is not that of a mutex.
bool FindMutexOwner(HANDLE mutex, pid_t* thread);

// A handle on a new object, or on the existing one of that name, in which case the last error is ERROR_ALREADY_EXISTS.
// Null with the last error. T has kKind and a constructor that takes a header and a hold, which is null for an object
// without a name.
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

// Null with the last error if there is no object of that name and kind.
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

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_STORED_WAITABLE_H_
