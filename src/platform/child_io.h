// Two things around the standard streams of a child that each system does in its own way.
#ifndef KESTRUN_PLATFORM_CHILD_IO_H_
#define KESTRUN_PLATFORM_CHILD_IO_H_

#include <memory>

#include "platform/win32.h"

namespace kestrun::platform {

// Start-up data by which a child inherits its three standard handles and nothing else, so that threads that start
// children at once do not leak each other's pipe ends into them: a write end in a foreign child would keep its
// reader from ever seeing the end.
//
// Used for one CreateProcessA with inheriting on. A handle that is not inheritable stays behind.
class OnlyStandardHandles {
 public:
  explicit OnlyStandardHandles(const STARTUPINFOA& startupInfo);
  OnlyStandardHandles(const OnlyStandardHandles&) = delete;
  OnlyStandardHandles& operator=(const OnlyStandardHandles&) = delete;
  ~OnlyStandardHandles();

  // What to give to CreateProcessA; lives as long as this object.
  STARTUPINFOA* GetStartupInfo();
  // To be added to the creation flags.
  DWORD GetCreationFlags() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Calls a thread back from a read that it is blocked in; the read fails with ERROR_OPERATION_ABORTED. No effect if
// the thread is in no read at that moment, nor where a read from a child's pipe ends with the child by itself.
void InterruptRead(HANDLE thread);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_CHILD_IO_H_
