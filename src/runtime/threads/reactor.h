// The event loop under the messaging layer: it waits for sockets and for kernel objects at once and calls handlers.
//
// A Reactor has no thread of its own. One thread runs the select loop (sockets, and timeouts), another the wait loop
// (kernel objects); any thread may register, unregister, add timeouts and stop.
//
// Handling is one-shot: a handler that is ready is not waited for while it is called, and is waited for again only if
// HandleEvent succeeded. So two threads are never in one handler. A handler that has failed is closed, reported to the
// close listeners, and forgotten. The same happens to a handler that was closed during HandleEvent, and to one that
// belongs on the pool after the pool was stopped: it can't be called any more, and its peer must not wait for an
// answer.
//
// No lock is held while a handler, a timeout or a listener runs.
#ifndef KESTRUN_RUNTIME_THREADS_REACTOR_H_
#define KESTRUN_RUNTIME_THREADS_REACTOR_H_

#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/event_handler.h"
#include "runtime/threads/handle_loop.h"
#include "runtime/threads/reactor_exception.h"
#include "runtime/threads/select_wakeup_handler.h"
#include "runtime/threads/socket_loop.h"
#include "runtime/threads/thread_pool.h"
#include "runtime/threads/timeout_list.h"

namespace kestrun {

class Reactor {
 public:
  using EventHandler = kestrun::EventHandler;
  using TimeoutHandler = kestrun::TimeoutHandler;
  using SelectWakeupHandler = kestrun::SelectWakeupHandler;

  using ErrorListener = EventLoop::ErrorListener;
  using CloseListener = rc_ptr<Functor1<void, EventHandler*>::_DelegateBase>;

  static constexpr int kSelectable = EventHandler::kSelectable;
  static constexpr int kWaitable = EventHandler::kWaitable;
  static constexpr u32 kRead = EventHandler::kRead;
  static constexpr u32 kWrite = EventHandler::kWrite;
  // The first of the ten loopback ports that the wake-up pair tries.
  static constexpr u16 kFirstWakeupPort = SelectWakeupHandler::kFirstPort;

  // With 0 pool threads every handler runs on the loop's own thread.
  explicit Reactor(u32 poolThreads, u16 firstWakeupPort = kFirstWakeupPort);
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;
  // Shuts down. Both loops must have returned.
  ~Reactor();

  // Adds a handler, which the Reactor holds from here on. False for null, an unknown type, or a kernel object with
  // write interest. Throws ReactorException if no port is left for the wake-up pair of the first socket handler.
  bool Register(const rc_ptr<EventHandler>& handler);
  // Removes a handler. True if it was waited for: it is not called any more. False if it is being called, was closed,
  // or was never registered; a call that is under way goes on, and the handler is not registered again after it.
  bool Unregister(const rc_ptr<EventHandler>& handler);

  // Run until Stop (true) or until a pass fails (false). A pass waits at most `timeoutMs`.
  bool RunSelectLoop(int timeoutMs);
  bool RunWaitLoop(int timeoutMs);

  // One pass: the number of handlers that were called or queued, and of wake-ups; -1 on failure. Fires the timeouts
  // that are due. It returns early when a timeout comes due, and sleeps on an event while there are no sockets.
  int SelectOnce(int timeoutMs);
  // One pass: 1 for an event, at most one handler called; 0 when time ran out; -1 on failure.
  int WaitForOneEvent(int timeoutMs);

  // Ends both loops at once. A stopped Reactor does not run again.
  void Stop();
  // False if the pool did not end within 60 s.
  bool StopThreadPool();
  // Stops the pool and releases all handlers, without closing them.
  void Shutdown();

  // Calls the handler once on the select loop's thread, `delayMs` from now. A handler that waits already is given the
  // new time, also while the callback of another one runs. Always true.
  bool AddTimeout(const rc_ptr<TimeoutHandler>& handler, u32 delayMs);
  // True if the handler was waiting: it is not called.
  bool CancelTimeout(const rc_ptr<TimeoutHandler>& handler);

  // Listeners stay as long as the Reactor. They run on the thread that met the error, or on which the handler failed.
  void AddErrorListener(ErrorListener listener);
  void AddCloseListener(CloseListener listener);

  // "Reactor: selectable=2 waitable=0 timeouts=1"
  std::string GetStatus();

 private:
  // Null for an unknown type.
  EventLoop* LoopOf(EventHandler* handler);
  int DispatchReady(const SocketLoop::Result& result);
  bool DispatchOrQueue(const rc_ptr<EventHandler>& handler);
  void Dispatch(rc_ptr<EventHandler> handler);
  void Finish(const rc_ptr<EventHandler>& handler);

  void TellError(std::string text);
  void TellClosed(EventHandler* handler);

  std::set<CloseListener> closeListeners_;
  std::vector<ErrorListener> errorListeners_;
  // Guards the two above.
  CriticalSection listenersLock_;

  std::atomic<bool> isRunning_{true};
  SocketLoop sockets_;
  HandleLoop handles_;
  TimeoutList timeouts_;
  // Last, so that its threads end before what they use.
  ThreadPool<Functor0<void>::Type> pool_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_REACTOR_H_
