// The shortest way from the start of a client to its tool.
#ifndef KESTRUN_FRONTEND_TRANSPARENT_FORM_H_
#define KESTRUN_FRONTEND_TRANSPARENT_FORM_H_

#include <string>
#include <vector>

#include "app/options.h"

namespace kestrun {

// The tool and its arguments among the words that the process was started with; empty if they can't be told there.
std::vector<std::string> GetToolWords(const Options& options, int argc, const char* const* argv);

// The id of the master that this process belongs to: -id, else KESTRUN_ID; empty for none.
std::string GetInheritedId(const Options& options);

// Where the command line names a tool, and a master hands out slots under the id of this process, runs the tool in one:
// true, with the exit code, if that was done (where a process can become another program it does not return). Reads no
// settings, writes no log and starts no thread; false changes nothing.
bool RunTransparently(const std::string& commandLine, int argc, const char* const* argv, int& exitCode);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_TRANSPARENT_FORM_H_
