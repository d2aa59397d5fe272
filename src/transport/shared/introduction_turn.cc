#include "transport/shared/introduction_turn.h"

#include <algorithm>

namespace kestrun {

namespace {

// A long limit is waited for in slices of this length, and only slices are counted. If a whole build is suspended and
// resumed, the time in which this process was stopped then costs one slice at most.
constexpr u32 kSliceMs = 500;

bool LockInSlices(Mutex& mutex, u32 timeoutMs) {
  for (u32 leftMs = timeoutMs; leftMs > 0;) {
    const u32 sliceMs = std::min(leftMs, kSliceMs);
    if (mutex.Lock(sliceMs)) return true;
    leftMs -= sliceMs;
  }
  return false;
}

}  // namespace

IntroductionTurn::IntroductionTurn(const std::string& lockName, u32 timeoutMs)
    : mutex_(lockName.c_str()), isHeld_(mutex_.Lock(0)) {
  if (isHeld_) return;
  isHeld_ = Await([&] { return LockInSlices(mutex_, timeoutMs); }, [this] { return GetMutexOwner(mutex_.GetHandle()); },
                  holder_);
}

IntroductionTurn::~IntroductionTurn() {
  if (isHeld_) mutex_.Unlock();
}

bool IntroductionTurn::Await(const Wait& wait, const Query& owner, u32& holder) {
  // A change of the owner during a wait means that turns pass on, so the wait starts again. The same owner before and
  // after means that one process keeps its turn.
  MutexOwner before = owner();
  while (!wait()) {
    const MutexOwner after = owner();
    holder = after.process;
    if (!after.isKnown || (after.thread != 0 && after.thread == before.thread)) return false;
    before = after;
  }
  return true;
}

}  // namespace kestrun
