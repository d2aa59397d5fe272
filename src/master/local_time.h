#ifndef KESTRUN_MASTER_LOCAL_TIME_H_
#define KESTRUN_MASTER_LOCAL_TIME_H_

#include "runtime/base/types.h"

namespace kestrun {

// The local time in milliseconds since the start of 1601.
u64 LocalTimeMs();

}  // namespace kestrun

#endif  // KESTRUN_MASTER_LOCAL_TIME_H_
