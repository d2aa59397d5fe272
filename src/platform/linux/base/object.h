// The base of all objects for which handles stand.
//
// An Object belongs to one process and is held by shared_ptr: one reference for each handle of the process, and one for
// each call that is using it. So a handle may be closed while another thread waits on it or reads from it; that call
// goes on with the object that it has. Work that must be done when the last handle is closed, and not when the last
// call has returned, belongs in LastHandleClosed.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_OBJECT_H_

#include <atomic>
#include <cstdint>

#include "platform/api/base_api.h"

namespace kestrun::platform {

class Waitable;

// The numbers stand in the files of named objects.
enum class ObjectKind : std::uint32_t {
  kEvent = 1,
  kMutex = 2,
  kSemaphore = 3,
  kMapping = 4,
  kJob = 5,
  kThread = 6,
  kProcess = 7,
  kFile = 8,
  kFind = 9,
  kSnapshot = 10,
  kOther = 11,
};

class Object {
 public:
  explicit Object(ObjectKind kind) : kind_(kind) {}
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  ObjectKind kind() const { return kind_; }

  // This object as something to wait for; null where waiting makes no sense.
  virtual Waitable* AsWaitable() { return nullptr; }

  // The last handle of this process was closed. Called once, on the closing thread, with no lock held; calls that
  // are still using the object may be running.
  virtual void LastHandleClosed() {}

  // ResumeThread: the suspend count before the call. The default is ERROR_INVALID_HANDLE and 0xFFFFFFFF.
  virtual DWORD Resume();

  // 1 if this process has one handle on the object and no other process has any; otherwise more than 1.
  virtual std::uint32_t HandleCount();

  // For the handle table alone. Relaxed to add: the caller has the object already. Acquire and release to drop: the
  // thread that drops the last handle sees what the others did with the object before they closed theirs.
  void AddHandle() { handles_.fetch_add(1, std::memory_order_relaxed); }
  bool DropHandle() { return handles_.fetch_sub(1, std::memory_order_acq_rel) == 1; }

 protected:
  // Relaxed: the answer may be old by the time that it is used, in any case.
  std::uint32_t OwnHandles() const { return handles_.load(std::memory_order_relaxed); }

 private:
  const ObjectKind kind_;
  std::atomic<std::uint32_t> handles_{0};
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_OBJECT_H_
