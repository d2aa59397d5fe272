// Checks a condition a bounded number of times before its caller goes to sleep.
//
// To sleep and to be woken takes tens of microseconds, and more where the processor has gone idle meanwhile; the other
// end of a ring is often done within one. So a waiter first spins: it checks, yields the processor, and checks again.
// The number of checks adapts. Each spin that succeeded doubles it; each one that failed halves it and makes the spin
// skip some of the next waits, so that a waiter that waits for seconds uses next to nothing.
//
// On a busy processor yielding loses a whole time slice, milliseconds, while a sleeper is scheduled first when it
// wakes. One such loss costs as much as thousands of checks. So after a loss a number of waits sleep at once; that
// number grows sixteenfold with each further loss and is halved only by a long run of successes.
//
// Threads: one at a time.
#ifndef KESTRUN_TRANSPORT_SHARED_ADAPTIVE_SPIN_H_
#define KESTRUN_TRANSPORT_SHARED_ADAPTIVE_SPIN_H_

#include <algorithm>

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

class AdaptiveSpin {
 public:
  static constexpr u32 kFewestChecks = 16;
  static constexpr u32 kMostChecks = 256;

  explicit AdaptiveSpin(u32 checks = kFewestChecks) : checks_(checks) {}

  // True if isDone() became true. It is called often, and without a lock.
  template <class IsDone>
  bool Await(const IsDone& isDone) {
    if (isDone()) return true;
    if (waitsToSkip_ > 0) {
      --waitsToSkip_;
      return false;
    }
    for (u32 i = 0; i < checks_; ++i) {
      const bool hasLostSlice = !YieldSlice();
      const bool hasCome = isDone();
      if (hasLostSlice) NoteLoss();
      if (hasCome && !hasLostSlice) NoteSuccess();
      if (hasCome || hasLostSlice) return hasCome;
    }
    NoteFailure();
    return false;
  }

 private:
  static constexpr LONGLONG kLossUs = 50;
  static constexpr u32 kMostSkippedAfterFailures = 63;
  static constexpr u32 kMostSkippedAfterLosses = 4095;
  static constexpr u32 kSuccessesForOneLoss = 1024;

  // False if the processor came back so late that another thread must have computed on it.
  static bool YieldSlice() {
    LARGE_INTEGER frequency, before, after;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&before);
    SwitchToThread();
    QueryPerformanceCounter(&after);
    return (after.QuadPart - before.QuadPart) * 1'000'000 < kLossUs * frequency.QuadPart;
  }

  void NoteSuccess() {
    checks_ = std::min(checks_ * 2, kMostChecks);
    skipAfterFailure_ = 0;
    if (++successes_ < kSuccessesForOneLoss) return;
    successes_ = 0;
    skipAfterLoss_ /= 2;
  }
  void NoteFailure() {
    checks_ = std::max(checks_ / 2, kFewestChecks);
    skipAfterFailure_ = std::min(skipAfterFailure_ * 2 + 1, kMostSkippedAfterFailures);
    waitsToSkip_ = skipAfterFailure_;
  }
  void NoteLoss() {
    successes_ = 0;
    skipAfterLoss_ = std::min(skipAfterLoss_ * 16 + 15, kMostSkippedAfterLosses);
    waitsToSkip_ = skipAfterLoss_;
  }

  u32 checks_;
  u32 waitsToSkip_ = 0;
  u32 skipAfterFailure_ = 0;
  u32 skipAfterLoss_ = 0;
  u32 successes_ = 0;  // since the last loss, or since skipAfterLoss_ was last halved
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_ADAPTIVE_SPIN_H_
