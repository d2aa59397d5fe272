#ifndef KESTRUN_MASTER_FORMAT_ELAPSED_H_
#define KESTRUN_MASTER_FORMAT_ELAPSED_H_

#include <string>

#include "runtime/base/types.h"

namespace kestrun {

// Formats a length of time for the log: "999ms", "2.5s", and from ten seconds on "01:05", minutes and seconds. An hour
// and more is told in minutes, too. Any thread.
std::string FormatElapsed(u32 ms);

}  // namespace kestrun

#endif  // KESTRUN_MASTER_FORMAT_ELAPSED_H_
