// Which thread owns a named mutex, so that a connector can tell a turn that passes on from one that does not.
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

// Any thread.
MutexOwner GetMutexOwner(HANDLE mutex);

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_MUTEX_OWNER_H_
