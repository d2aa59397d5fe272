#include "platform/linux/waitable.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/linux/futex.h"
#include "platform/linux/sync_api.h"
#include "platform/linux/wait_hub.h"

namespace kestrun::platform {

namespace {

// How long one sleep on a shared object may last; see the head of waitable.h.
constexpr DWORD kSliceMs = 1000;

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

timespec TimespecOf(std::int64_t ns) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
  time.tv_nsec = static_cast<long>(ns % kNsPerSecond);
  return time;
}

}  // namespace

Deadline Deadline::After(DWORD timeoutMs) {
  if (timeoutMs == INFINITE) return Never();
  // 0 has always passed; no clock needs to be read for it.
  return Deadline(timeoutMs == 0 ? 0 : Now() + timeoutMs * kNsPerMs);
}

bool Deadline::HasPassed() const {
  if (IsNever()) return false;
  return ns_ == 0 || Now() >= ns_;
}

Deadline Deadline::OrAfter(DWORD sliceMs) const {
  const Deadline slice = After(sliceMs);
  return slice.ns_ < ns_ ? slice : *this;
}

timespec Deadline::ToTimespec() const {
  return TimespecOf(ns_);
}

timespec Deadline::Left() const {
  return TimespecOf(IsNever() ? ns_ : std::max(ns_ - Now(), std::int64_t{0}));
}

std::int64_t Deadline::Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

DWORD Waitable::Acquire(const Deadline& deadline) {
  DWORD result = TryAcquire();
  if (result != WAIT_TIMEOUT || deadline.HasPassed()) return result;
  // The count goes up before the word is looked at again, and a signaller changes the word before it looks at the
  // count: one of the two sees the other.
  state_->sleepers.fetch_add(1, std::memory_order_seq_cst);
  for (;;) {
    result = TryAcquire();
    if (result != WAIT_TIMEOUT || deadline.HasPassed()) break;
    const Deadline until = scope_ == Scope::kMachine ? deadline.OrAfter(kSliceMs) : deadline;
    if (FutexWait(state_->word, 0, scope_, until) == 0) continue;
    if (errno != EAGAIN && errno != EINTR && errno != ETIMEDOUT) {
      SetLastError(Win32ErrorFromErrno(errno));
      result = WAIT_FAILED;
      break;
    }
  }
  state_->sleepers.fetch_sub(1, std::memory_order_seq_cst);
  return result;
}

bool Waitable::SignalOne() {
  SetLastError(ERROR_INVALID_HANDLE);
  return false;
}

void Waitable::Wake(int count) {
  if (state_->sleepers.load(std::memory_order_seq_cst) != 0) FutexWake(state_->word, count, scope_);
  const std::uint64_t marks = state_->hubs.load(std::memory_order_seq_cst);
  if (marks != 0) NotifyHubs(marks, scope_);
}

void Completion::Signal() {
  ownState_.word.store(1, std::memory_order_seq_cst);
  Wake(INT_MAX);
}

}  // namespace kestrun::platform
