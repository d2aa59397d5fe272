// Interrupts a select that is under way: a pair of connected sockets, the read side among those that are waited for.
//
// The pair is built from plain TCP on the loopback address, on the first of ten ports that is free.
#ifndef KESTRUN_RUNTIME_SELECT_WAKEUP_HANDLER_H_
#define KESTRUN_RUNTIME_SELECT_WAKEUP_HANDLER_H_

#include "platform/win32.h"
#include "runtime/critical_section.h"
#include "runtime/reactor.h"
#include "runtime/types.h"

namespace kestrun {

class Reactor::SelectWakeupHandler : public Reactor::EventHandler {
 public:
  // Throws ReactorException with WSAEADDRINUSE if none of the ten ports works.
  explicit SelectWakeupHandler(u16 firstPort = kFirstWakeupPort);
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

#endif  // KESTRUN_RUNTIME_SELECT_WAKEUP_HANDLER_H_
