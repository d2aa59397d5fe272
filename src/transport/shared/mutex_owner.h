// Which thread owns a named mutex. A connector tells by it whether turns pass on or one process keeps its turn.
//
// The answer may be old at once, so it is compared before and after a wait (introduction_turn.h) and never relied on.
#ifndef KESTRUN_TRANSPORT_SHARED_MUTEX_OWNER_H_
#define KESTRUN_TRANSPORT_SHARED_MUTEX_OWNER_H_

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

struct MutexOwner {
  bool isKnown = false;  // false if the system does not tell
  u32 process = 0;       // 0 if no thread owns it
  u32 thread = 0;
};

// Never fails: isKnown is false if the system does not tell. May be called from any thread.
MutexOwner GetMutexOwner(HANDLE mutex);

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_MUTEX_OWNER_H_
