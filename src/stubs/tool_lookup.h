#ifndef KESTRUN_STUBS_TOOL_LOOKUP_H_
#define KESTRUN_STUBS_TOOL_LOOKUP_H_

#include <string>

#include "runtime/path.h"

namespace kestrun {

// The one file that a tool's name means, in its long form. An empty Path, after an error line on the standard error
// stream, if there is none. The name is looked up as it is given, with ".exe" behind it where that is missing.
Path FindTool(const std::string& name);

}  // namespace kestrun

#endif  // KESTRUN_STUBS_TOOL_LOOKUP_H_
