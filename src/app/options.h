// The options of a process as a plain, copyable record. The front end fills it, and every stub keeps a copy of its own,
// so that nothing changes while it runs.
#ifndef KESTRUN_APP_OPTIONS_H_
#define KESTRUN_APP_OPTIONS_H_

#include <string>

#include "runtime/base/types.h"

namespace kestrun {

// The special character of annotations in tool arguments, unless -m names another text.
extern const std::string kDefaultMarker;

// The project of jobs that name none.
inline constexpr char kUsualProject[] = "default";

struct Options {
  u32 timeoutSeconds = 0;               // -t, given in minutes; 0 is none
  std::string name;                     // -n: the job's name for display
  bool showVersion = false;             // --version
  bool showHelp = false;                // --help
  std::string tool;                     // as typed, without enclosing quotes
  std::string toolArgs;                 // the raw text behind the tool
  u32 wordsBeforeTool = 0;              // words of the command line in front of the tool
  std::string marker = kDefaultMarker;  // -m
  bool master = false;                  // -master
  std::string scriptPath;               // -s
  std::string stopEvent;                // -es: the name of the event that tells the master to stop
  std::string readyEvent;               // -er: the one that the master signals when it serves clients
  std::string finishEvent;              // -ef: the one that tells the master that the build is over
  std::string id;                       // -id: the master instance
  std::string project = kUsualProject;  // -p
  u32 flags = 0;                        // JobFlag bits: -v, -k
  bool expandEnvironment = false;       // -e: expand %NAME% in job scripts
};

// Turns each marker in the text into the default marker, starting over until none is left. A text that the
// replacement itself forms counts too. Nothing happens with the default marker or an empty one.
void ReplaceMarker(std::string& text, const std::string& marker);

}  // namespace kestrun

#endif  // KESTRUN_APP_OPTIONS_H_
