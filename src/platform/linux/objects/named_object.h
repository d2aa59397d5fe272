// One handle's hold on an object that the processes of one user find by name: an entry of the folder's table
// (object_table.h). The data of a mapping is a file of its own.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_NAMED_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_NAMED_OBJECT_H_

#include <memory>
#include <mutex>
#include <string>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/objects/object_table.h"

namespace kestrun::platform {

// Held by unique_ptr in the object that the handle stands for. All members may be called from any thread, Release also
// while other threads are in the other members.
class NamedObject {
 public:
  using Initialise = ObjectTable::Initialise;

  // A new object, or the existing one of that name; `existed` tells which. Null with the last error set:
  // ERROR_INVALID_HANDLE if the name belongs to an object of another kind.
  static std::unique_ptr<NamedObject> CreateOrOpen(ObjectKind kind, const char* name, std::uint64_t dataSize,
                                                   const Initialise& initialise, bool* existed);
  // Null with ERROR_FILE_NOT_FOUND if there is no such object.
  static std::unique_ptr<NamedObject> Open(ObjectKind kind, const char* name);

  ~NamedObject() { Release(); }
  NamedObject(const NamedObject&) = delete;
  NamedObject& operator=(const NamedObject&) = delete;

  // The header as this process sees it, at one address for all its handles on the object. It may outlive the hold.
  const std::shared_ptr<ObjectHeader>& memory() const { return memory_; }

  // Gives the hold up. The object is gone if that was its last hold. Later calls do nothing.
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

// The name under which the table keeps an object: plain names and "Global\" ones differ, "Local\" ones are plain. False
// with the last error set for a name that can't be.
bool FullObjectName(const char* name, std::string* fullName);

// False for null and "", which stand for an object without a name.
inline bool HasName(const char* name) {
  return name && *name;
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_NAMED_OBJECT_H_
