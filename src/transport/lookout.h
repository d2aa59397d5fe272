// A look at whether something has come, by one who would otherwise fall asleep over it.
//
// To fall asleep and be woken takes tens of microseconds, and more still where the processor went idle meanwhile; the
// other end of a ring is often done within one. So a waiter looks a bounded number of times first, and leaves the
// processor to whoever wants it between two looks. Looks that helped lead to more of them, and looks that did not to
// fewer and rarer ones: who waits for seconds uses next to nothing.
//
// On a processor that somebody computes on it is the other way round: who gives way is out for milliseconds, and who
// sleeps is woken ahead of the other. One such loss is worth thousands of looks, so a waiter that has met one sleeps at
// once for a number of waits that grows sixteenfold with each further one, and shrinks only with long good experience.
//
// One thread at a time.
#ifndef KESTRUN_TRANSPORT_LOOKOUT_H_
#define KESTRUN_TRANSPORT_LOOKOUT_H_

#include <algorithm>

#include "platform/win32.h"
#include "runtime/types.h"

namespace kestrun {

class Lookout {
 public:
  static constexpr u32 kFewLooks = 16;
  static constexpr u32 kMostLooks = 256;

  explicit Lookout(u32 looks = kFewLooks) : looks_(looks) {}

  // Whether isDone() came true. It is called often, and without a lock.
  template <class IsDone>
  bool Await(const IsDone& isDone) {
    if (isDone()) return true;
    if (waitsToSkip_ > 0) {
      --waitsToSkip_;
      return false;
    }
    for (u32 i = 0; i < looks_; ++i) {
      const bool wasOut = !GiveWay();
      const bool hasCome = isDone();
      if (wasOut) NoteLoss();
      if (hasCome && !wasOut) NoteSuccess();
      if (hasCome || wasOut) return hasCome;
    }
    NoteFailure();
    return false;
  }

 private:
  static constexpr LONGLONG kLossUs = 50;
  static constexpr u32 kMostSkippedAfterFailures = 63;
  static constexpr u32 kMostSkippedAfterLosses = 4095;
  static constexpr u32 kSuccessesForOneLoss = 1024;

  // False if the processor was so long in coming back that somebody else computes on it.
  static bool GiveWay() {
    LARGE_INTEGER frequency, before, after;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&before);
    SwitchToThread();
    QueryPerformanceCounter(&after);
    return (after.QuadPart - before.QuadPart) * 1'000'000 < kLossUs * frequency.QuadPart;
  }

  void NoteSuccess() {
    looks_ = std::min(looks_ * 2, kMostLooks);
    skipAfterFailure_ = 0;
    if (++successes_ < kSuccessesForOneLoss) return;
    successes_ = 0;
    skipAfterLoss_ /= 2;
  }
  void NoteFailure() {
    looks_ = std::max(looks_ / 2, kFewLooks);
    skipAfterFailure_ = std::min(skipAfterFailure_ * 2 + 1, kMostSkippedAfterFailures);
    waitsToSkip_ = skipAfterFailure_;
  }
  void NoteLoss() {
    successes_ = 0;
    skipAfterLoss_ = std::min(skipAfterLoss_ * 16 + 15, kMostSkippedAfterLosses);
    waitsToSkip_ = skipAfterLoss_;
  }

  u32 looks_;
  u32 waitsToSkip_ = 0;
  u32 skipAfterFailure_ = 0;
  u32 skipAfterLoss_ = 0;
  u32 successes_ = 0;  // since the last loss, or since the last time that they counted
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_LOOKOUT_H_
