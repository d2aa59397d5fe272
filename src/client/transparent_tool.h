// Runs a tool as its caller would have run it: a client of a master with Extensions/TransparentTools.
#ifndef KESTRUN_CLIENT_TRANSPARENT_TOOL_H_
#define KESTRUN_CLIENT_TRANSPARENT_TOOL_H_

#include <cstdint>
#include <string>
#include <vector>

#include "app/options.h"
#include "runtime/base/types.h"

namespace kestrun {

// A master only limits how many tools run at once; this process runs the tool itself. So the tool has the environment,
// streams, folder, terminal, limits, priority, parent and everything else that it would have without Kestrun, and its
// end is seen by the caller as it is: on systems where a process can become another program the tool *is* this process.
//
// The tool is looked for as the caller's shell would look, and its arguments pass as they are.
class TransparentTool {
 public:
  enum class Outcome {
    kDone,      // the exit code is known
    kNoMaster,  // no master hands out slots under this id; nothing was run
  };

  // `words` is the tool's name and its arguments, as this process was given them; empty where they are not known
  // singly.
  TransparentTool(const Options& options, std::vector<std::string> words);

  // Waits for a slot of the master of this id and runs the tool. Does not return where this process becomes the tool.
  Outcome RunInSlot(const std::string& id, int& exitCode);
  // The same without a master and without a limit.
  int RunAlone();

  // The tool is ended, with all that it started and exit code 124, after so many seconds; 0 is none.
  void SetTimeout(u32 seconds) { timeoutSeconds_ = seconds; }

 private:
  int RunAsChild();

  const Options& options_;
  const std::vector<std::string> words_;
  u32 timeoutSeconds_ = 0;
  // Usage of a tool that has run as a child; -1 while it is not known.
  std::int64_t cpuUs_ = -1;
  std::int64_t peakMemoryBytes_ = -1;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_TRANSPARENT_TOOL_H_
