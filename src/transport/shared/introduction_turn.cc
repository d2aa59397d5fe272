#include "transport/shared/introduction_turn.h"

#include <algorithm>

namespace kestrun {

namespace {

// A build that is suspended as a whole goes on as a whole: the time in which this process was stopped must not count,
// and costs one slice at most.
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
