// Turns Ctrl-C and the other console events into an event that the main thread can wait on.
#ifndef KESTRUN_DORN_INTERRUPTION_H_
#define KESTRUN_DORN_INTERRUPTION_H_

#include "platform/win32.h"
#include "runtime/base/handle.h"

namespace kestrun::dorn {

// Catches the console's control events from construction on, for the rest of the process: one object a process, which
// lives until the process ends. The system takes a closing console's process away as soon as its handler returns, so
// the handler stays in that case for the time that the orderly end may take.
class Interruption {
 public:
  // Throws SyncException if the system refuses.
  Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  // Signalled from the first control event on.
  HANDLE GetHandle() const { return event_.Get(); }
  // Of the first one: CTRL_C_EVENT and so on.
  DWORD GetType() const;
  // True if the terminal may have told the build command as well: for Ctrl-C, and for nothing else.
  bool HasReachedAll() const;
  bool HasHappened() const { return WaitForSingleObject(event_.Get(), 0) == WAIT_OBJECT_0; }

 private:
  static BOOL WINAPI OnControlEvent(DWORD type);

  UniqueHandle event_;
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_INTERRUPTION_H_
