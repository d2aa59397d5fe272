#include <sched.h>

#include <array>
#include <ctime>
#include <memory>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/objects/wait_hub.h"
#include "platform/linux/objects/waitable.h"

namespace kestrun::platform {

namespace {

// The first sleep for shared objects; see the head of waitable.h.
constexpr DWORD kFirstSliceMs = 1000;
// The slice for a hub that signals of other processes do not reach: the wait is then a poll.
constexpr DWORD kShortSliceMs = 20;

// The objects of one wait. It holds references, so that their handles may be closed meanwhile.
class WaitSet {
 public:
  // False with the last error if some handle can't be waited on.
  bool Collect(DWORD count, const HANDLE* handles) {
    for (; count_ < count; ++count_) {
      objects_[count_] = LookUp<Waitable>(handles[count_]);
      if (!objects_[count_]) return false;
      if (objects_[count_]->scope() == Scope::kMachine) scope_ = Scope::kMachine;
    }
    return true;
  }

  DWORD WaitForAny(const Deadline& deadline) {
    // Most waits are satisfied or have a limit of 0, and then need no hub.
    DWORD result = TryAny();
    if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
    const Hub hub = Hub::For(scope_);
    for (DWORD i = 0; i < count_; ++i) hub.Mark(objects_[i]->state(), objects_[i]->scope());
    SleepSlices slices(kFirstSliceMs);
    for (;;) {
      // The order of these steps is the one at the top of wait_hub.cc.
      const std::uint32_t seen = hub.Counter();
      result = TryAny();
      if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
      if (!hub.Sleep(seen, NextWake(hub, slices, deadline))) return WAIT_FAILED;
    }
  }

  // Only for objects that stay signalled, which may be waited for one after the other. For others a wait would have to
  // take all signals in one step, which words in shared memory do not allow without a lock.
  DWORD WaitForAll(const Deadline& deadline) {
    for (DWORD i = 0; i < count_; ++i) {
      if (objects_[i]->IsConsumable()) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return WAIT_FAILED;
      }
    }
    for (DWORD i = 0; i < count_; ++i) {
      const DWORD result = objects_[i]->Acquire(deadline);
      if (result != WAIT_OBJECT_0) return result;
    }
    return WAIT_OBJECT_0;
  }

 private:
  DWORD TryAny() {
    for (DWORD i = 0; i < count_; ++i) {
      const DWORD result = objects_[i]->TryAcquire();
      if (result == WAIT_FAILED) return WAIT_FAILED;
      if (result != WAIT_TIMEOUT) return result + i;
    }
    return WAIT_TIMEOUT;
  }

  Deadline NextWake(const Hub& hub, SleepSlices& slices, const Deadline& deadline) const {
    if (scope_ == Scope::kProcess) return deadline;
    return hub.IsComplete() ? slices.Next(deadline) : deadline.Or(Deadline::After(kShortSliceMs));
  }

  std::array<std::shared_ptr<Waitable>, MAXIMUM_WAIT_OBJECTS> objects_;
  DWORD count_ = 0;
  Scope scope_ = Scope::kProcess;
};

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs) {
  const auto object = LookUp<Waitable>(handle);
  return object ? object->Acquire(Deadline::After(timeoutMs)) : WAIT_FAILED;
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeoutMs) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  WaitSet set;
  if (!set.Collect(count, handles)) return WAIT_FAILED;
  const Deadline deadline = Deadline::After(timeoutMs);
  return waitAll ? set.WaitForAll(deadline) : set.WaitForAny(deadline);
}

DWORD SignalObjectAndWait(HANDLE toSignal, HANDLE toWaitOn, DWORD timeoutMs, BOOL) {
  const auto signalled = LookUp<Waitable>(toSignal);
  const auto awaited = LookUp<Waitable>(toWaitOn);
  // Windows does both in one step. Two steps serve as well, because an event keeps a signal that comes between them
  // until the wait takes it.
  if (!signalled || !awaited || !signalled->SignalOne()) return WAIT_FAILED;
  return awaited->Acquire(Deadline::After(timeoutMs));
}

void Sleep(DWORD timeoutMs) {
  if (timeoutMs == 0) {
    sched_yield();
    return;
  }
  Deadline deadline = Deadline::After(timeoutMs == INFINITE ? INFINITE - 1 : timeoutMs);
  do {
    const timespec until = deadline.ToTimespec();
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
    }
    deadline = Deadline::After(INFINITE - 1);
  } while (timeoutMs == INFINITE);
}

BOOL SwitchToThread() {
  sched_yield();
  return TRUE;
}
