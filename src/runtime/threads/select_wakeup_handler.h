// Interrupts a select that is under way: a pair of connected sockets, the read side among those that are waited for.
//
// The pair is built from plain TCP on the loopback address, on the first of ten ports that is free. Any thread may
// wake; the loop that selects takes the wake-ups.
#ifndef KESTRUN_RUNTIME_THREADS_SELECT_WAKEUP_HANDLER_H_
#define KESTRUN_RUNTIME_THREADS_SELECT_WAKEUP_HANDLER_H_

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/types.h"
#include "runtime/threads/event_handler.h"

namespace kestrun {

class SelectWakeupHandler : public EventHandler {
 public:
  // The first of the ten ports, unless another is given.
  static constexpr u16 kFirstPort = 9780;

  // Throws ReactorException with WSAEADDRINUSE if none of the ten ports works.
  explicit SelectWakeupHandler(u16 firstPort = kFirstPort);
  ~SelectWakeupHandler() override;

  // From any thread. Each call lets one select return.
  void Wake();

  int GetHandle() override;
  int GetHandleType() override { return kSelectable; }
  bool UsesThreadPool() override { return false; }
  // Takes one wake-up.
  bool HandleEvent() override;
  void Close() override;

 private:
  static constexpr u16 kPortCount = 10;

  bool Connect(u16 port);

  // Guarded by lock_; -1 when closed.
  int readSocket_ = -1;
  int writeSocket_ = -1;
  CriticalSection lock_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_SELECT_WAKEUP_HANDLER_H_
