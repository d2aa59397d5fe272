#include "transport/shared/introduction_turn.h"

namespace kestrun {

IntroductionTurn::IntroductionTurn(const std::string& lockName, u32 timeoutMs)
    : mutex_(lockName.c_str()), isHeld_(mutex_.Lock(0)) {
  if (isHeld_) return;
  isHeld_ =
      Await([&] { return mutex_.Lock(timeoutMs); }, [this] { return GetMutexOwner(mutex_.GetHandle()); }, holder_);
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
