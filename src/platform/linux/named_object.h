// Objects that the processes of one user find by name, each an entry of the folder's table (object_table.h). The data
// of a mapping is a file of its own.
#ifndef KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_H_

#include <memory>
#include <mutex>
#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/object_table.h"
#include "platform/linux/waitable.h"

namespace kestrun::platform {

// One handle's hold on a named object. Move-free; usually in a unique_ptr. Release may run while other threads are in
// the other members.
class NamedObject {
 public:
  using Initialise = ObjectTable::Initialise;

  // A new object, or the one that bears the name: `existed` tells. Null with the last error set: ERROR_INVALID_HANDLE
  // if the name belongs to another kind.
  static std::unique_ptr<NamedObject> CreateOrOpen(ObjectKind kind, const char* name, std::uint64_t dataSize,
                                                   const Initialise& initialise, bool* existed);
  // Null with ERROR_FILE_NOT_FOUND if there is no such object.
  static std::unique_ptr<NamedObject> Open(ObjectKind kind, const char* name);

  ~NamedObject() { Release(); }
  NamedObject(const NamedObject&) = delete;
  NamedObject& operator=(const NamedObject&) = delete;

  // The header as this process sees it, at one address for all its handles on the object. It may outlive the hold.
  const std::shared_ptr<ObjectHeader>& memory() const { return memory_; }

  // Lets go of the object, which vanishes if this was the last hold. Once; later calls do nothing.
  void Release();

  // True if some other handle holds the object, here or in another process.
  bool IsHeldElsewhere();

  // A shared mapping of the data; MAP_FAILED with errno.
  void* MapData(std::uint64_t offset, std::size_t length, int protection);

 private:
  NamedObject(ObjectTable& table, ObjectTable::Found found)
      : table_(table), slot_(found.slot), data_(std::move(found.data)), memory_(std::move(found.memory)) {}

  static std::unique_ptr<NamedObject> Find(const char* name, ObjectTable::Request request, bool* existed);

  ObjectTable& table_;
  const unsigned slot_;
  std::mutex lock_;
  bool isReleased_ = false;  // guarded by lock_
  FileDescriptor data_;      // guarded by lock_
  const std::shared_ptr<ObjectHeader> memory_;
};

// A name as it stands in the table: plain names and "Global\" ones differ, "Local\" ones are plain. False with the last
// error set for a name that can't be.
bool FullObjectName(const char* name, std::string* fullName);

// An event, mutex or semaphore, with a name or without.
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

inline bool HasName(const char* name) {
  return name && *name;
}

// What all three kinds do for a new handle. T has kKind and a constructor that takes a header and a hold.
template <class T>
HANDLE CreateStored(const char* name, const NamedObject::Initialise& initialise);
template <class T>
HANDLE OpenStored(const char* name);

}  // namespace kestrun::platform

#include "platform/linux/named_object_inl.h"

#endif  // KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_H_
