// A source of events under a Reactor: a socket or a kernel object, and the handling when it is ready.
//
// Held by rc_ptr; the Reactor holds one as long as the handler is registered. All operations are called without a lock
// of the Reactor. GetHandle, GetEvents and UsesThreadPool are called on the thread of the loop that waits. HandleEvent
// is called on that thread or on one of the pool, never on two at once. Close is called on the thread on which the
// handler has failed, and by any code that closes the handler.
#ifndef KESTRUN_RUNTIME_THREADS_EVENT_HANDLER_H_
#define KESTRUN_RUNTIME_THREADS_EVENT_HANDLER_H_

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

class EventHandler : public rc_base {
 public:
  // The results of GetHandleType: a socket, or a kernel object.
  static constexpr int kSelectable = 0;
  static constexpr int kWaitable = 1;
  // The bits of GetEvents.
  static constexpr u32 kRead = 1;
  static constexpr u32 kWrite = 2;
  // The result of GetHandle if there is nothing to wait for at present.
  static constexpr int kNoHandle = -1;

  // The socket or kernel object to wait for, or kNoHandle.
  virtual int GetHandle() = 0;
  // Never changes.
  virtual int GetHandleType() = 0;
  virtual u32 GetEvents() { return kRead; }
  // True if HandleEvent runs on the pool.
  virtual bool UsesThreadPool() = 0;
  // False if the handler is finished; a SystemException means the same.
  virtual bool HandleEvent() = 0;
  // Releases the handle. Called again for a handler that is closed already, it does nothing.
  virtual void Close() = 0;
  // True from Close on. A handler that was closed by another thread during HandleEvent is not waited for again.
  virtual bool IsClosed() { return false; }
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_EVENT_HANDLER_H_
