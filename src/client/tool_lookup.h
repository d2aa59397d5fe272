#ifndef KESTRUN_CLIENT_TOOL_LOOKUP_H_
#define KESTRUN_CLIENT_TOOL_LOOKUP_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// The file that a tool's name means, in its long form. An empty Path, after an error line on the standard error stream,
// if there is none. The name is looked up as it is given, with ".exe" added if it is missing.
Path FindTool(const std::string& name);

// The same for a tool that was named on the command line, whose case matters less. On systems where names may differ in
// case alone, a file whose name is exactly as typed, in every component, is the tool; otherwise the lower-cased name is
// looked up, which is also the one in the error line.
Path FindTypedTool(const std::string& name);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_TOOL_LOOKUP_H_
