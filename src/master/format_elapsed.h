#ifndef KESTRUN_MASTER_FORMAT_ELAPSED_H_
#define KESTRUN_MASTER_FORMAT_ELAPSED_H_

#include <string>

#include "runtime/base/types.h"

namespace kestrun {

// A length of time for people: "999ms", "2.5s", and from ten seconds on "01:05", minutes and seconds.
std::string FormatElapsed(u32 ms);

}  // namespace kestrun

#endif  // KESTRUN_MASTER_FORMAT_ELAPSED_H_
