#ifndef KESTRUN_MASTER_LOCAL_TIME_H_
#define KESTRUN_MASTER_LOCAL_TIME_H_

#include "runtime/base/types.h"

namespace kestrun {

// The local time in milliseconds since the start of 1601, as Log::FormatTime takes it. It goes back when the clock is
// set or summer time ends, so it is no measure of a duration. Any thread.
u64 LocalTimeMs();

}  // namespace kestrun

#endif  // KESTRUN_MASTER_LOCAL_TIME_H_
