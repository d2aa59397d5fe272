// Waits with select for the sockets of the Reactor's handlers. Part of a Reactor, which calls the handlers.
//
// A pair of connected sockets is made with the first handler and ends a select that is under way. As long as there is
// none, the loop waits for an event.
//
// One thread calls Wait; any thread may call everything else.
#ifndef KESTRUN_RUNTIME_THREADS_SOCKET_LOOP_H_
#define KESTRUN_RUNTIME_THREADS_SOCKET_LOOP_H_

#include <cstddef>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/event_loop.h"
#include "runtime/threads/select_wakeup_handler.h"

namespace kestrun {

class SocketLoop : public EventLoop {
 public:
  struct ReadySocket {
    rc_ptr<EventHandler> handler;
    int handle;
  };
  struct Result {
    bool isFailed = false;
    // How often the wait was ended by Wake; it says so once however often that was called.
    int wakeups = 0;
    // The handlers that are ready; their calls have not begun. A handler that another one closes or removes is not
    // called.
    std::vector<ReadySocket> ready;
  };

  SocketLoop(u16 firstWakeupPort, ErrorListener errorListener);

  bool Accepts(EventHandler*) override { return true; }
  // Also closes the pair.
  void Clear() override;
  void Wake() override;
  // With the read side of the pair.
  std::size_t GetCount() override;

  // Fails for more than FD_SETSIZE - 1 sockets and where the system refuses the wait.
  Result Wait(u32 timeoutMs);

 protected:
  // Makes the pair. Throws ReactorException if no port is left for it.
  void Prepare() override;
  void WakeForHandler() override;

 private:
  struct SocketSets;

  rc_ptr<SelectWakeupHandler> GetWakeup();
  bool CollectSockets(SocketSets* sets);
  int Select(SocketSets* sets, u32 timeoutMs);

  const u16 firstWakeupPort_;
  // The event that the loop waits for as long as there are no sockets.
  UniqueHandle idleEvent_;
  rc_ptr<SelectWakeupHandler> wakeup_;  // guarded by wakeupLock_
  CriticalSection wakeupLock_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_SOCKET_LOOP_H_
