#include "platform/linux/objects/deadline.h"

#include <algorithm>

#include "platform/api/sync_api.h"

namespace kestrun::platform {

namespace {

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
  // A limit of 0 has always passed, so the clock is not read for it.
  return Deadline(timeoutMs == 0 ? 0 : Now() + timeoutMs * kNsPerMs);
}

bool Deadline::HasPassed() const {
  if (IsNever()) return false;
  return ns_ == 0 || Now() >= ns_;
}

timespec Deadline::ToTimespec() const {
  return TimespecOf(ns_);
}

timespec Deadline::Left() const {
  return TimespecOf(IsNever() ? ns_ : std::max(ns_ - Now(), std::int64_t{0}));
}

// The monotonic clock, since a wait must not change with the time of day. It is also the one that futexes use by
// default.
std::int64_t Deadline::Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

Deadline SleepSlices::Next(const Deadline& deadline) {
  constexpr DWORD kLongestMs = 60'000;
  if (end_.HasPassed()) {
    lengthMs_ = std::min(2 * lengthMs_, kLongestMs);
    end_ = Deadline::After(lengthMs_);
  }
  return deadline.Or(end_);
}

}  // namespace kestrun::platform
