// The timeouts of a Reactor, and how long its select loop may sleep before the next one.
//
// A handler is in the list once at most, and stays there until it is called: while the callback of another one runs, a
// handler that is due can still be cancelled or given a new time.
//
// Any thread may add and cancel. One thread calls BeginSleep, EndSleep and RunDue. The lock is the list's own and is
// not held while a handler is called.
#ifndef KESTRUN_RUNTIME_THREADS_TIMEOUT_LIST_H_
#define KESTRUN_RUNTIME_THREADS_TIMEOUT_LIST_H_

#include <cstddef>
#include <vector>

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

// A handler that is called when its time has come.
class TimeoutHandler : public rc_base {
 public:
  virtual void OnTimeout() = 0;
};

// True if `now` has reached `due`, by counts of milliseconds that wrap: the two lie less than 24 days apart.
inline bool IsDue(u32 now, u32 due) {
  return static_cast<i32>(now - due) >= 0;
}

class TimeoutList {
 public:
  TimeoutList() = default;
  TimeoutList(const TimeoutList&) = delete;
  TimeoutList& operator=(const TimeoutList&) = delete;

  // Adds a handler that is to be called `delayMs` from now; one that is in the list is given the new time. True if the
  // sleep that is under way would last longer than that: the caller ends it.
  bool Add(const rc_ptr<TimeoutHandler>& handler, u32 delayMs);
  // True if the handler was in the list: it is not called.
  bool Cancel(const rc_ptr<TimeoutHandler>& handler);

  // Around a sleep: the milliseconds until the next timeout, at most `limitMs`.
  u32 BeginSleep(int limitMs);
  void EndSleep();

  // Calls what is due now, each handler once. What a callback adds waits for the next call.
  void RunDue();

  std::size_t GetCount();

 private:
  struct Entry {
    rc_ptr<TimeoutHandler> handler;
    u32 due;
    u32 run;  // the number of the run during which, or after which, it was added
  };

  std::vector<Entry>::iterator Find(const rc_ptr<TimeoutHandler>& handler);
  u32 BeginRun();
  rc_ptr<TimeoutHandler> TakeDue(u32 now, u32 run);

  // Guarded by lock_.
  std::vector<Entry> entries_;
  u32 run_ = 0;  // the number of the last RunDue
  bool isAsleep_ = false;
  u32 sleepEnd_ = 0;
  CriticalSection lock_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_TIMEOUT_LIST_H_
