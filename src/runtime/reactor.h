// The event loop under the messaging layer: it waits for sockets and for kernel objects at once and calls handlers.
//
// A Reactor has no thread of its own. One thread runs the select loop (sockets, and timeouts), another the wait loop
// (kernel objects); any thread may register, unregister, add timeouts and stop.
//
// Handling is one-shot: a handler that is ready is taken out of its set before HandleEvent and goes back only if that
// succeeded. So no two threads are ever in one handler, and one that has failed is closed, told to the close listeners,
// and not seen again. Whoever unregisters a handler in time keeps it from being called.
//
// No lock is held while a handler or a timeout runs. The error listeners for too many sockets or wait handles run under
// the lock of their set: a listener calls no Register or Unregister.
#ifndef KESTRUN_RUNTIME_REACTOR_H_
#define KESTRUN_RUNTIME_REACTOR_H_

#include <atomic>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/win32.h"
#include "runtime/critical_section.h"
#include "runtime/delegate.h"
#include "runtime/exception.h"
#include "runtime/handle.h"
#include "runtime/rc_ptr.h"
#include "runtime/thread_pool.h"
#include "runtime/types.h"

namespace kestrun {

class ReactorException : public SystemException {
 public:
  ReactorException(i32 code, const std::string& message) : SystemException(code, message, "ReactorException") {}
};

class Reactor {
 public:
  class EventHandler;
  class TimeoutHandler;
  class SelectWakeupHandler;

  using ErrorListener = rc_ptr<Functor1<void, std::string>::_DelegateBase>;
  using CloseListener = rc_ptr<Functor1<void, EventHandler*>::_DelegateBase>;

  // What EventHandler::GetHandleType gives.
  static constexpr int kSelectable = 0;
  static constexpr int kWaitable = 1;
  // The bits of EventHandler::GetEvents.
  static constexpr u32 kRead = 1;
  static constexpr u32 kWrite = 2;
  // The first of the ten loopback ports that the wake-up pair tries.
  static constexpr u16 kFirstWakeupPort = 9780;

  // With 0 pool threads every handler runs on the loop's own thread.
  explicit Reactor(u32 poolThreads, u16 firstWakeupPort = kFirstWakeupPort);
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;
  // Shuts down. Both loops must have returned.
  ~Reactor();

  // Adds a handler, which the Reactor holds from here on. False for null, an unknown type, or a kernel object with
  // write interest. Throws ReactorException if no port is left for the wake-up pair of the first socket handler.
  bool Register(EventHandler* handler);
  // Takes a handler out. False if it was not there: it is being called, was closed, or never came.
  bool Unregister(EventHandler* handler);

  // Run until Stop (true) or until a pass fails (false). A pass waits at most `timeoutMs`.
  bool RunSelectLoop(int timeoutMs);
  bool RunWaitLoop(int timeoutMs);

  // One pass: the number of handlers that were called or queued, -1 on failure. Fires the timeouts that are due.
  // It returns early when a timeout comes due, and sleeps on an event while there are no sockets.
  int SelectOnce(int timeoutMs);
  // One pass: 1 for an event, at most one handler called; 0 when time ran out; -1 on failure.
  int WaitForOneEvent(int timeoutMs);

  // Ends both loops at once. A stopped Reactor does not run again.
  void Stop();
  // False if the pool did not end within 60 s.
  bool StopThreadPool();
  // Stops the pool and lets go of all handlers, without closing them.
  void Shutdown();

  // Calls the handler once on the select loop's thread, `delayMs` from now. A handler that waits already is given the
  // new time. Always true.
  bool AddTimeout(TimeoutHandler* handler, u32 delayMs);
  // True if the handler was waiting. One whose time has come may still be called.
  bool CancelTimeout(TimeoutHandler* handler);

  // Listeners stay as long as the Reactor.
  void AddErrorListener(ErrorListener listener);
  void AddCloseListener(CloseListener listener);

  // "Reactor: selectable=2 waitable=0 timeouts=1"
  std::string GetStatus();

 private:
  using HandlerSet = std::set<rc_ptr<EventHandler>>;
  using Timeouts = std::vector<std::pair<rc_ptr<TimeoutHandler>, u32>>;
  struct WaitTable;

  bool RegisterSelectable(EventHandler* handler);
  bool RegisterWaitable(EventHandler* handler);
  bool Claim(EventHandler* handler);
  bool IsRunning();

  bool CollectSockets(fd_set* read, fd_set* write);
  int WaitForSockets(fd_set* read, fd_set* write, int timeoutMs);
  int DispatchReady(fd_set* read);
  void CollectHandles(WaitTable* table);
  int DispatchSignalled(const WaitTable& table, u32 index);
  void DispatchOrQueue(const rc_ptr<EventHandler>& handler);
  void Dispatch(rc_ptr<EventHandler> handler);

  u32 BeginSelectSleep(int limitMs);
  void EndSelectSleep();
  void WakeSelectLoop();
  void ProcessTimeouts();
  bool IsWakeup(const EventHandler* handler);
  rc_ptr<SelectWakeupHandler> GetWakeup();
  void TellError(const std::string& text);
  void TellClosed(EventHandler* handler);

  std::set<CloseListener> closeListeners_;
  std::vector<ErrorListener> errorListeners_;
  // Guards the two above.
  CriticalSection listenersLock_;

  // Guarded by selectableLock_.
  HandlerSet selectable_;
  rc_ptr<SelectWakeupHandler> wakeup_;
  // Taken before the lock of the wake-up handler.
  CriticalSection selectableLock_;

  // Guarded by waitableLock_.
  HandlerSet waitable_;
  CriticalSection waitableLock_;

  // Guarded by timeoutsLock_.
  Timeouts timeouts_;
  // The select loop waits, and until when at most.
  bool sleeping_ = false;
  u32 sleepEnd_ = 0;
  CriticalSection timeoutsLock_;

  // Guarded by runLock_.
  bool running_ = true;
  CriticalSection runLock_;

  ThreadPool<Functor0<void>::Type> pool_;
  const u16 firstWakeupPort_;
  // Ends a pass of the wait loop.
  UniqueHandle wakeEvent_;
  // The thread that runs the wait loop; 0 while none does.
  std::atomic<DWORD> waitLoop_{0};
  // Ends a pass of the select loop while it has no sockets.
  UniqueHandle idleEvent_;
};

// One source of events. Held by rc_ptr. GetHandle and GetEvents are called under a lock of the Reactor, everything else
// without.
class Reactor::EventHandler : public rc_base {
 public:
  // The socket or kernel object to wait for; -1 for none at present.
  virtual int GetHandle() = 0;
  // kSelectable or kWaitable.
  virtual int GetHandleType() = 0;
  virtual u32 GetEvents() { return kRead; }
  // True if HandleEvent runs on the pool.
  virtual bool UsesThreadPool() = 0;
  // False if the handler is finished; a SystemException means the same.
  virtual bool HandleEvent() = 0;
  // Releases the handle.
  virtual void Close() = 0;
};

// Something to be called at a time.
class Reactor::TimeoutHandler : public rc_base {
 public:
  virtual void OnTimeout() = 0;
};

// True if `now` has reached `due`, by counts of milliseconds that wrap: the two lie less than 24 days apart.
inline bool IsDue(u32 now, u32 due) {
  return static_cast<i32>(now - due) >= 0;
}

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_REACTOR_H_
