// Tells each setting of an event once, whether the event resets itself or stays set until a process resets it.
#ifndef KESTRUN_MASTER_REPEATED_EVENT_H_
#define KESTRUN_MASTER_REPEATED_EVENT_H_

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

// A wait for an event that stays set returns at once, again and again. After each setting that was told, the event is
// left out of the caller's waits, and looked at every kPauseMs until it is seen reset. The kind of an event can't be
// asked for: one that is set at two looks in a row counts as one that stays set.
//
// Borrows the handle. One thread.
class RepeatedEvent {
 public:
  static constexpr u32 kPauseMs = 100;

  explicit RepeatedEvent(HANDLE event) : event_(event) {}

  // Whether the caller's next wait includes the event, and how long it may take: for ever, or to the next look.
  bool IsAwaited() const { return isAwaited_; }
  u32 GetLimitMs() const { return isAwaited_ ? INFINITE : kPauseMs; }

  // A wait has ended with this event.
  void OnSet() { isAwaited_ = false; }
  // A wait without the event has ended. True if the event was set anew, which takes the setting from an event that
  // resets itself.
  bool Look() {
    if (!IsSet()) {
      isAwaited_ = true;
      return false;
    }
    return !IsSet();
  }

 private:
  bool IsSet() const { return WaitForSingleObject(event_, 0) == WAIT_OBJECT_0; }

  const HANDLE event_;
  bool isAwaited_ = true;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_REPEATED_EVENT_H_
