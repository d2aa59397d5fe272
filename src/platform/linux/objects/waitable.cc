#include "platform/linux/objects/waitable.h"

#include <cerrno>
#include <climits>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/futex.h"
#include "platform/linux/objects/wait_hub.h"

namespace kestrun::platform {

namespace {

// The first sleep on a shared object; see the head of waitable.h.
constexpr DWORD kFirstSliceMs = 1000;

}  // namespace

DWORD Waitable::Acquire(const Deadline& deadline) {
  DWORD result = TryAcquire();
  if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
  // Sequentially consistent here and in Wake: the waiter raises the count before it reads the word, and a signaller
  // changes the word before it reads the count, so at least one of the two sees the other's change.
  state_->sleepers.fetch_add(1, std::memory_order_seq_cst);
  SleepSlices slices(kFirstSliceMs);
  for (;;) {
    result = TryAcquire();
    if (result != WAIT_TIMEOUT || deadline.HasPassed()) break;
    const Deadline until = scope_ == Scope::kMachine ? slices.Next(deadline) : deadline;
    if (FutexWait(state_->word, 0, scope_, until) == 0) continue;
    if (errno != EAGAIN && errno != EINTR && errno != ETIMEDOUT) {
      SetLastError(Win32ErrorFromErrno(errno));
      result = WAIT_FAILED;
      break;
    }
  }
  // Sequentially consistent, as all accesses to the count; a signaller that reads the old one makes a needless call.
  state_->sleepers.fetch_sub(1, std::memory_order_seq_cst);
  return result;
}

bool Waitable::SignalOne() {
  SetLastError(ERROR_INVALID_HANDLE);
  return false;
}

void Waitable::Wake(int count) {
  // Sequentially consistent: both loads are ordered behind the change of the word; see Acquire and Hub::Mark.
  if (state_->sleepers.load(std::memory_order_seq_cst) != 0) FutexWake(state_->word, count, scope_);
  const std::uint64_t marks = state_->hubs.load(std::memory_order_seq_cst);
  if (marks != 0) NotifyHubs(marks, scope_);
}

void Completion::Signal() {
  // Sequentially consistent: the store is ordered before Wake reads the count of sleepers.
  ownState_.word.store(1, std::memory_order_seq_cst);
  Wake(INT_MAX);
}

}  // namespace kestrun::platform
