#include "platform/api/sync_api.h"
#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

namespace {

// The word is the count. Sequentially consistent throughout: a change of it is ordered before the reads in Wake
// (waitable.cc).
class Semaphore : public StoredWaitable {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kSemaphore;

  Semaphore(std::shared_ptr<ObjectHeader> memory, std::unique_ptr<NamedObject> name)
      : StoredWaitable(kKind, std::move(memory), std::move(name)), maximum_(memory_->parameter) {}

  DWORD TryAcquire() override {
    std::uint32_t count = state().word.load(std::memory_order_seq_cst);
    while (count != 0) {
      if (state().word.compare_exchange_weak(count, count - 1, std::memory_order_seq_cst)) return WAIT_OBJECT_0;
    }
    return WAIT_TIMEOUT;
  }

  bool SignalOne() override { return Release(1, nullptr); }

  bool Release(std::uint32_t count, LONG* previous) {
    std::uint32_t old = state().word.load(std::memory_order_seq_cst);
    do {
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
