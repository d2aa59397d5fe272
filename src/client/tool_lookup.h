#ifndef KESTRUN_CLIENT_TOOL_LOOKUP_H_
#define KESTRUN_CLIENT_TOOL_LOOKUP_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// The one file that a tool's name means, in its long form. An empty Path, after an error line on the standard error
// stream, if there is none. The name is looked up as it is given, with ".exe" behind it where that is missing.
Path FindTool(const std::string& name);

// The same for a tool that was named on the command line, where case counts less. Where two files may differ in it, the
// one whose name is exactly as typed, in every component, is the tool; failing that the lower-cased name is looked up,
// which is also what the error line shows.
Path FindTypedTool(const std::string& name);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_TOOL_LOOKUP_H_
