// Waits for the kernel objects of the Reactor's handlers. Part of a Reactor, which calls the handlers.
//
// One thread calls Wait; any thread may call everything else. A wait takes in at most 63 handlers; if there are more,
// the first 63 are waited for and the error listener is told at each pass.
#ifndef KESTRUN_RUNTIME_THREADS_HANDLE_LOOP_H_
#define KESTRUN_RUNTIME_THREADS_HANDLE_LOOP_H_

#include <atomic>

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/event_loop.h"

namespace kestrun {

class HandleLoop : public EventLoop {
 public:
  enum class Outcome { kEvent, kTimedOut, kFailed };

  explicit HandleLoop(ErrorListener errorListener);

  // Refuses write interest.
  bool Accepts(EventHandler* handler) override;
  bool Remove(const rc_ptr<EventHandler>& handler) override;
  void Wake() override;

  // Waits for one event. The handler that it belongs to is not begun yet, and is empty if the wait was ended by Wake,
  // which goes before every handler.
  Outcome Wait(u32 timeoutMs, rc_ptr<EventHandler>& signalled);

  // The thread that calls Wait again and again, so that it need not be woken by what it does itself; 0 for none.
  void SetThread(DWORD threadId) { threadId_ = threadId; }

 protected:
  void WakeForHandler() override;

 private:
  struct WaitTable;

  void CollectHandles(WaitTable* table);

  UniqueHandle wakeEvent_;
  std::atomic<DWORD> threadId_{0};
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_HANDLE_LOOP_H_
