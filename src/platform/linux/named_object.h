// Objects that the processes of one user find by name.
//
// Each is a file in the object folder whose first page is the ObjectHeader; the data of a mapping follows on the next
// page. Two bytes of the file serve as locks that the kernel drops when their holder dies, whatever way it dies:
//
//   byte 0, the gate: held for a moment by whoever creates, opens or closes the object; no lock spans two objects.
//   byte 1, held:     locked for reading by each handle, each of which opens the file for itself.
//
// So an object exists exactly while some process has a handle on it. A file that nobody holds is what a killed process
// left behind; it is never taken up again but removed, and a new one made. Locks go with the open file description,
// which a forked child shares: between fork and exec nothing of this layer may be called.
#ifndef KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_NAMED_OBJECT_H_

#include <pthread.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/object.h"
#include "platform/linux/waitable.h"

namespace kestrun::platform {

constexpr std::size_t kObjectHeaderSize = 4096;

// The state of an object; of one without a name too, which then lies in the memory of the process.
struct ObjectHeader {
  std::atomic<std::uint32_t> magic;  // written last, read first
  std::uint32_t kind;
  std::uint32_t parameter;  // event: 1 for manual reset; semaphore: the maximum
  std::uint32_t nameLength;
  std::uint64_t dataSize;  // of a mapping
  char name[264];          // with the mark of its name space
  alignas(64) WaitState state;
  alignas(64) pthread_mutex_t mutex;     // of a mutex
  std::atomic<std::uint32_t> abandoned;  // of a mutex: its owner's thread ended in good order
};
static_assert(sizeof(ObjectHeader) <= kObjectHeaderSize);

// One handle's hold on a named object. Move-free; usually in a unique_ptr. Release may run while other threads are in
// the other members.
class NamedObject {
 public:
  // Called once while nobody else can see the new object, whose header is zero but for kind, name and size.
  using Initialise = std::function<void(ObjectHeader&)>;

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
  NamedObject(std::string leaf, FileDescriptor file, std::shared_ptr<ObjectHeader> memory)
      : leaf_(std::move(leaf)), file_(std::move(file)), memory_(std::move(memory)) {}

  struct Request;
  enum class Step { kAgain, kFailed, kCreated, kOpened };
  static std::unique_ptr<NamedObject> Find(const Request& request, bool* existed);
  static Step Try(const Request& request, std::unique_ptr<NamedObject>* result);
  static Step Join(const Request& request, FileDescriptor file, const struct stat& status,
                   std::unique_ptr<NamedObject>* result);
  static bool Describes(const ObjectHeader& header, const Request& request, const struct stat& status);
  static Step Make(const Request& request, FileDescriptor file, const struct stat& status,
                   std::unique_ptr<NamedObject>* result);

  const std::string leaf_;
  std::mutex lock_;
  FileDescriptor file_;  // guarded by lock_
  const std::shared_ptr<ObjectHeader> memory_;
};

// The leaf of the file for a name, and the name with the mark of its name space in front: plain names and "Global\"
// ones differ, "Local\" ones are plain. Two full names share a leaf only where a hash of very long ones collides. False
// with the last error set for a name that can't be.
bool ObjectFileName(const char* name, std::string* leaf, std::string* fullName);

// The locks, for those who look after the folder. The gate waits only if told to; false when it isn't free.
bool TakeGate(int fd, bool wait);
void DropAllLocks(int fd);
bool IsHeldByOthers(int fd);

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
