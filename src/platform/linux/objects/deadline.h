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
  // This deadline, or sliceMs from now if that comes first.
  Deadline OrAfter(DWORD sliceMs) const;
  timespec ToTimespec() const;
  // As a span from now; 0 if it has passed.
  timespec Left() const;

 private:
  static constexpr std::int64_t kNever = INT64_MAX;
  explicit Deadline(std::int64_t ns) : ns_(ns) {}
  static std::int64_t Now();

  std::int64_t ns_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_DEADLINE_H_
