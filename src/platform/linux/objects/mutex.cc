#include <pthread.h>

#include <algorithm>
#include <cerrno>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/robust_mutex.h"
#include "platform/linux/objects/stored_waitable.h"
#include "platform/linux/objects/thread_object.h"
#include "platform/linux/objects/wait_hub.h"

namespace kestrun::platform {

namespace {

// A robust mutex of the C library in the object's header: when the owner's thread or process dies, the kernel marks the
// mutex and wakes a waiter, whose lock then succeeds with EOWNERDEAD. An owner's id in the table would have to be
// polled for its death, and ids are used again.
//
// How often the owner has taken the mutex is counted in the data of its thread, which lists the thread's mutexes
// anyway, for AbandonOwnedMutexes.
class Mutex : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kMutex;

  Mutex(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)) {}

  DWORD TryAcquire() override {
    // Before the lock itself: a thread that locked its own mutex again would wait for itself.
    if (TakeAgain()) return WAIT_OBJECT_0;
    return Taken(pthread_mutex_trylock(&memory_->mutex));
  }

  DWORD Acquire(const Deadline& deadline) override {
    const DWORD result = TryAcquire();
    if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
    return Taken(LockRobustUntil(memory_->mutex, deadline));
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

  pid_t Owner() const { return OwnerThread(memory_->mutex); }

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
    // A thread that ended while its process lives has unlocked the mutex itself (AbandonOwnedMutexes), so the kernel
    // reports nothing, and this flag tells of it. Relaxed: the mutex orders the accesses, which only its owners make.
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

bool FindMutexOwner(HANDLE mutex, pid_t* thread) {
  const auto object = LookUp<Mutex>(mutex);
  if (object) *thread = object->Owner();
  return object != nullptr;
}

void AbandonOwnedMutexes(ThreadData& data) {
  // The kernel would do this only once the thread is gone. The thread's handle is signalled before that, and a thread
  // that has waited for the handle must find the mutexes abandoned.
  for (const OwnedMutex& owned : data.ownedMutexes) {
    // Relaxed: the unlock below publishes it.
    owned.memory->abandoned.store(1, std::memory_order_relaxed);
    pthread_mutex_unlock(&owned.memory->mutex);
    // Sequentially consistent: the marks are read after the unlock; see wait_hub.cc.
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
