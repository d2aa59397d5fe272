// The handlers of one loop of the Reactor, and the state of each: what SocketLoop and HandleLoop have in common.
//
// A handler is in one of three states, or not known:
//
//   state    | Add     | Remove         | BeginCall    | EndCall: keep | EndCall: drop
//   ---------+---------+----------------+--------------+---------------+--------------
//   unknown  | waiting | false          | false        | false         |
//   waiting  |         | unknown, true  | called, true |               |
//   called   |         | removed, false | false        | waiting, true | unknown
//   removed  | called  | false          | false        | unknown,false | unknown
//
// So one thread at a time is in a handler, and one that is removed while it is being called does not come back.
//
// Any thread may call any operation. The lock is the loop's own and is not held while a handler is called.
#ifndef KESTRUN_RUNTIME_THREADS_EVENT_LOOP_H_
#define KESTRUN_RUNTIME_THREADS_EVENT_LOOP_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/threads/event_handler.h"

namespace kestrun {

class EventLoop {
 public:
  // Told why a wait failed, or which handlers it left out. Called on the thread of the loop.
  using ErrorListener = rc_ptr<Functor1<void, std::string>::_DelegateBase>;

  explicit EventLoop(ErrorListener errorListener);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  virtual ~EventLoop() = default;

  // True for a handler that this loop can wait for.
  virtual bool Accepts(EventHandler* handler) = 0;
  // False for a handler that is not accepted.
  bool Add(const rc_ptr<EventHandler>& handler);
  // True if the handler was waiting: it is not called any more.
  virtual bool Remove(const rc_ptr<EventHandler>& handler);
  // Forgets all handlers, those too that are being called.
  virtual void Clear();

  // True if the caller may call the handler now; it must call EndCall afterwards.
  bool BeginCall(const rc_ptr<EventHandler>& handler);
  // True if the handler waits again.
  bool EndCall(const rc_ptr<EventHandler>& handler, bool isKept);

  // Ends the wait that is under way, or else the next one.
  virtual void Wake() = 0;

  // The number of handlers that are waited for.
  virtual std::size_t GetCount();

 protected:
  // Comes before the first handler, and any number of times after that.
  virtual void Prepare() {}
  // The handlers to be waited for, always in the same order.
  std::vector<rc_ptr<EventHandler>> GetWaiting();
  void TellError(const std::string& text) { (*errorListener_)(text); }

  // Makes the loop see a handler that was added or that waits again.
  virtual void WakeForHandler() = 0;

 private:
  enum class State { kWaiting, kCalled, kRemoved };

  const ErrorListener errorListener_;
  std::map<rc_ptr<EventHandler>, State> handlers_;  // guarded by lock_
  CriticalSection lock_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_EVENT_LOOP_H_
