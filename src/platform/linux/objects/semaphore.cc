#include "platform/api/sync_api.h"
#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

namespace {

// A semaphore: its word is the count.
//
// Memory orders: all accesses to the word are sequentially consistent, because a change of the word must be ordered
// before the reads of counts and marks in Wake (waitable.cc), and these are other words.
class Semaphore : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kSemaphore;

  Semaphore(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)), maximum_(memory_->parameter) {}

  DWORD TryAcquire() override {
    // Sequentially consistent: a waiter that has left its mark or count sees a release that was made before.
    std::uint32_t count = state().word.load(std::memory_order_seq_cst);
    while (count != 0) {
      if (state().word.compare_exchange_weak(count, count - 1, std::memory_order_seq_cst)) return WAIT_OBJECT_0;
    }
    return WAIT_TIMEOUT;
  }

  bool SignalOne() override { return Release(1, nullptr); }

  bool Release(std::uint32_t count, LONG* previous) {
    // Sequentially consistent: the exchange is ordered before the reads in Wake.
    std::uint32_t old = state().word.load(std::memory_order_seq_cst);
    do {
      // Written as a subtraction, which can't overflow, since the count is never above the maximum.
      if (count > maximum_ - old) {
        SetLastError(ERROR_TOO_MANY_POSTS);
        return false;
      }
    } while (!state().word.compare_exchange_weak(old, old + count, std::memory_order_seq_cst));
    if (previous) *previous = static_cast<LONG>(old);
    Wake(static_cast<int>(count));
    return true;
  }

 private:
  const std::uint32_t maximum_;
};

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCSTR name) {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return CreateStored<Semaphore>(name, [=](ObjectHeader& header) {
    header.parameter = static_cast<std::uint32_t>(maximumCount);
    // No other thread sees the object yet; the order is that of all accesses.
    header.state.word.store(static_cast<std::uint32_t>(initialCount), std::memory_order_seq_cst);
  });
}

HANDLE OpenSemaphoreA(DWORD, BOOL, LPCSTR name) {
  return OpenStored<Semaphore>(name);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount) {
  const auto object = LookUp<Semaphore>(semaphore);
  if (!object) return FALSE;
  if (releaseCount <= 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return object->Release(static_cast<std::uint32_t>(releaseCount), previousCount) ? TRUE : FALSE;
}
