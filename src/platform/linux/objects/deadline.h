// The end of a wait as a point in time, so that a wait that sleeps several times still ends when it should.
//
// A value: copied freely, used from any thread, and never fails.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_DEADLINE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_DEADLINE_H_

#include <cstdint>
#include <ctime>

#include "platform/api/base_api.h"

namespace kestrun::platform {

// A point in time on CLOCK_MONOTONIC, or never.
class Deadline {
 public:
  // INFINITE means never.
  static Deadline After(DWORD timeoutMs);
  static Deadline Never() { return Deadline(kNever); }

  bool IsNever() const { return ns_ == kNever; }
  bool HasPassed() const;
  // This deadline or the other, whichever comes first.
  Deadline Or(const Deadline& other) const { return other.ns_ < ns_ ? other : *this; }
  timespec ToTimespec() const;
  // As a span from now; 0 if it has passed.
  timespec Left() const;

 private:
  static constexpr std::int64_t kNever = INT64_MAX;
  explicit Deadline(std::int64_t ns) : ns_(ns) {}
  static std::int64_t Now();

  std::int64_t ns_;
};

// The times at which a long sleep checks its object although nothing has woken it. A wake-up from another process can
// be lost when that process is killed between its change of the object and the call that wakes. The first check comes
// after `firstMs`, each later one after twice as long as the one before, up to a minute. So a lost wake-up delays a
// wait by about as long as the wait has lasted, and a thread that sleeps for hours costs nothing.
class SleepSlices {
 public:
  explicit SleepSlices(DWORD firstMs) : lengthMs_(firstMs), end_(Deadline::After(firstMs)) {}

  // The end of the next sleep: the next check or the deadline of the wait.
  Deadline Next(const Deadline& deadline);

 private:
  DWORD lengthMs_;
  Deadline end_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_DEADLINE_H_
