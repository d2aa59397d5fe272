#include <pthread.h>

#include <algorithm>
#include <cerrno>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/observed_lock.h"
#include "platform/linux/objects/robust_mutex.h"
#include "platform/linux/objects/stored_waitable.h"
#include "platform/linux/objects/thread_object.h"
#include "platform/linux/objects/wait_hub.h"

namespace kestrun::platform {

namespace {

// A robust mutex of the C library in the object's header: the kernel itself tells the next owner, within microseconds,
// that the owner's process died. How often the owner has taken it is counted in the data of its thread.
class Mutex : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kMutex;

  Mutex(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)) {}

  DWORD TryAcquire() override {
    if (TakeAgain()) return WAIT_OBJECT_0;
    return Taken(pthread_mutex_trylock(&memory_->mutex));
  }

  DWORD Acquire(const Deadline& deadline) override {
    const DWORD result = TryAcquire();
    if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
    return Taken(deadline.IsNever() ? pthread_mutex_lock(&memory_->mutex) : LockUntil(deadline));
  }

  bool SignalOne() override {
    std::vector<OwnedMutex>& owned = CurrentThreadData().ownedMutexes;
    const auto entry = FindIn(owned);
    if (entry == owned.end()) {
      SetLastError(ERROR_NOT_OWNER);
      return false;
    }
    if (--entry->depth != 0) return true;
    owned.erase(entry);
    pthread_mutex_unlock(&memory_->mutex);
    Wake(0);
    return true;
  }

  // For the thread that has just made the object and initialised its mutex as owned.
  void SetInitialOwner() { CurrentThreadData().ownedMutexes.push_back({memory_, scope(), 1}); }

 private:
  std::vector<OwnedMutex>::iterator FindIn(std::vector<OwnedMutex>& owned) const {
    // From the end: the mutex that was taken last is usually released first.
    const auto found = std::find_if(owned.rbegin(), owned.rend(),
                                    [this](const OwnedMutex& candidate) { return candidate.memory == memory_; });
    return found == owned.rend() ? owned.end() : found.base() - 1;
  }

  bool TakeAgain() {
    std::vector<OwnedMutex>& owned = CurrentThreadData().ownedMutexes;
    const auto entry = FindIn(owned);
    if (entry == owned.end()) return false;
    ++entry->depth;
    return true;
  }

  int LockUntil(const Deadline& deadline) {
    const timespec until = deadline.ToTimespec();
    const ObservedLock observed(memory_->mutex);
    return observed.Note(pthread_mutex_clocklock(&memory_->mutex, CLOCK_MONOTONIC, &until));
  }

  DWORD Taken(int lockResult) {
    bool abandoned = false;
    switch (lockResult) {
      case 0:
        break;
      case EOWNERDEAD:
        pthread_mutex_consistent(&memory_->mutex);
        abandoned = true;
        break;
      case EBUSY:
      case ETIMEDOUT:
        return WAIT_TIMEOUT;
      default:
        SetLastError(Win32ErrorFromErrno(lockResult));
        return WAIT_FAILED;
    }
    // Relaxed: the mutex itself orders the flag, which is set and read by its owners alone.
    if (memory_->abandoned.load(std::memory_order_relaxed) != 0) {
      memory_->abandoned.store(0, std::memory_order_relaxed);
      abandoned = true;
    }
    CurrentThreadData().ownedMutexes.push_back({memory_, scope(), 1});
    return abandoned ? WAIT_ABANDONED : WAIT_OBJECT_0;
  }
};

void InitialiseMutex(ObjectHeader& header, bool owned) {
  InitialiseRobustMutex(header.mutex);
  if (owned) pthread_mutex_lock(&header.mutex);
}

}  // namespace

void AbandonOwnedMutexes(ThreadData& data) {
  // The kernel would do this only once the thread is gone, which is after its handle is signalled.
  for (const OwnedMutex& owned : data.ownedMutexes) {
    // Relaxed: the unlock orders it.
    owned.memory->abandoned.store(1, std::memory_order_relaxed);
    pthread_mutex_unlock(&owned.memory->mutex);
    // Sequentially consistent: read after the unlock; see wait_hub.cc.
    NotifyHubs(owned.memory->state.hubs.load(std::memory_order_seq_cst), owned.scope);
  }
  data.ownedMutexes.clear();
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCSTR name) {
  bool made = false;
  const HANDLE handle = CreateStored<Mutex>(name, [&](ObjectHeader& header) {
    InitialiseMutex(header, initialOwner != FALSE);
    made = true;
  });
  if (handle && made && initialOwner) LookUp<Mutex>(handle)->SetInitialOwner();
  return handle;
}

HANDLE OpenMutexA(DWORD, BOOL, LPCSTR name) {
  return OpenStored<Mutex>(name);
}

BOOL ReleaseMutex(HANDLE mutex) {
  const auto object = LookUp<Mutex>(mutex);
  return object && object->SignalOne() ? TRUE : FALSE;
}
