// How many handles all processes together hold on a kernel object. With only one left, no other process has the object
// open: so an end learns that its peer has died.
//
// Any thread may call it.
#ifndef KESTRUN_TRANSPORT_SHARED_HANDLE_COUNT_H_
#define KESTRUN_TRANSPORT_SHARED_HANDLE_COUNT_H_

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

// 0 if the system does not tell; the reason is then written to the standard error stream.
u32 GetHandleCount(HANDLE handle);

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_HANDLE_COUNT_H_
