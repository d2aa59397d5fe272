// How many handles all processes together hold on a kernel object: with only one left, nobody else has it open.
#ifndef KESTRUN_TRANSPORT_HANDLE_COUNT_H_
#define KESTRUN_TRANSPORT_HANDLE_COUNT_H_

#include "platform/win32.h"
#include "runtime/types.h"

namespace kestrun {

// 0 if the system does not tell; the reason then stands on the standard error stream.
u32 GetHandleCount(HANDLE handle);

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_HANDLE_COUNT_H_
