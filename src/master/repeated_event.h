// Reports each signalling of an event once, for auto-reset and manual-reset events.
#ifndef KESTRUN_MASTER_REPEATED_EVENT_H_
#define KESTRUN_MASTER_REPEATED_EVENT_H_

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

// A wait for a manual-reset event that stays signalled returns at once, again and again. So after each report the event
// is left out of the caller's waits, and is polled every kPauseMs until it is found reset. The kind of an event can't
// be queried: an event that is found signalled twice in a row counts as a manual-reset one.
//
// Borrows the handle. One thread.
class RepeatedEvent {
 public:
  static constexpr u32 kPauseMs = 100;

  explicit RepeatedEvent(HANDLE event) : event_(event) {}

  // Whether the caller's next wait includes the event, and how long it may take: for ever, or until the next poll.
  bool IsAwaited() const { return isAwaited_; }
  u32 GetLimitMs() const { return isAwaited_ ? INFINITE : kPauseMs; }

  // A wait has ended with this event.
  void OnSet() { isAwaited_ = false; }
  // A wait without the event has timed out. True if an auto-reset event was signalled again; the call has reset it.
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
