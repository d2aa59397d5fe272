// The path by which a client becomes its tool in one of the master's slots, without settings, log or threads.
#ifndef KESTRUN_FRONTEND_TRANSPARENT_FORM_H_
#define KESTRUN_FRONTEND_TRANSPARENT_FORM_H_

#include <string>
#include <vector>

#include "app/options.h"

namespace kestrun {

// The words that the process was started with, less the program's name.
std::vector<std::string> GetWords(int argc, const char* const* argv);

// The tool and its arguments among the words that the process was started with; empty if they can't be told there.
std::vector<std::string> GetToolWords(const Options& options, int argc, const char* const* argv);

enum class TransparentRun {
  kDone,      // the exit code is known; where a process can become another program, this is not seen
  kNoServer,  // no master hands out slots under the id of this process, or it has none
  kNotAsked,  // the command line does not name a tool, or the settings decide about it
};

// Where the command line names a tool, and a master hands out slots under the id of this process, runs the tool in one.
// Reads no settings, writes no log and starts no thread; whatever is not kDone changes nothing.
TransparentRun RunTransparently(const std::string& commandLine, int argc, const char* const* argv, int& exitCode);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_TRANSPARENT_FORM_H_
