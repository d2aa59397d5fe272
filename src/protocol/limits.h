// Limits that more than one program checks: dorn refuses a value before it starts a master with it.
//
// Constants only.
#ifndef KESTRUN_PROTOCOL_LIMITS_H_
#define KESTRUN_PROTOCOL_LIMITS_H_

#include "runtime/base/types.h"

namespace kestrun {

// Jobs that one master may be told to run at once. Each has a thread.
inline constexpr u32 kMostConcurrentJobs = 1024;

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_LIMITS_H_
