// The local build: how a client runs its tool if it can't reach the master.
#ifndef KESTRUN_CLIENT_LOCAL_BUILD_H_
#define KESTRUN_CLIENT_LOCAL_BUILD_H_

#include <string>

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/path.h"
#include "runtime/process/process.h"

namespace kestrun {

// Runs one tool as a child of this process. Owned by a compiler stub; Run belongs to its main thread, Stop may come
// from any thread at any time.
class LocalBuild {
 public:
  static constexpr int kNotRun = 1;  // the exit code of a build that was stopped before it began

  // Runs the tool with this process's environment and directory, in a job of its own, and echoes its output. Gives its
  // exit code; -1, after an error line, if the tool can't be started.
  int Run(const Path& toolPath, const std::string& command);

  // Sends the running tool a Ctrl-Break, or terminates it where that fails. No tool starts afterwards.
  void Stop();

 private:
  CriticalSection lock_;  // guards both
  rc_ptr<Process> process_;
  bool isStopped_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_LOCAL_BUILD_H_
