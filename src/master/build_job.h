#ifndef KESTRUN_MASTER_BUILD_JOB_H_
#define KESTRUN_MASTER_BUILD_JOB_H_

#include <atomic>
#include <memory>
#include <string>

#include "messaging/message.h"
#include "runtime/environment.h"
#include "runtime/path.h"
#include "runtime/rc_ptr.h"
#include "runtime/types.h"
#include "transport/address.h"

namespace kestrun {

class Project;

enum JobState : u32 {
  JOB_NEW = 0,
  JOB_SCHEDULED = 1,  // in the local job queue, or running
  JOB_FINISHED = 2,
};

// One tool invocation: what to run, for which stub, and how it ended.
//
// Made of its request, then owned by the message thread. While a job is scheduled a local build thread
// reads what there is to run and empties the echo text; the message thread leaves those fields alone for that time.
// Any thread may look at isCancelled at any time.
class BuildJob : public rc_base {
 public:
  explicit BuildJob(u32 jobId) : id(jobId) {}

  const u32 id;  // from 1 upward; the key of every map of jobs
  u32 state = JOB_NEW;
  Path toolPath;
  Path workingDirectory;
  std::string commandLine;  // the tool's path in quotes, a blank, the arguments
  u32 flags = 0;
  u32 timeoutSeconds = 0;  // 0 is none
  std::string echoText;
  std::string projectName;
  Address clientAddress;                 // the channel of the stub
  Project* project = nullptr;            // lives as long as the scheduler
  std::atomic<bool> isCancelled{false};  // nobody waits for the job any more
  i32 exitCode = 0;
  // What the tool wrote, shared with the message that brought it; null for nothing.
  rc_ptr<Message::Segment> stdoutText;
  rc_ptr<Message::Segment> stderrText;
  std::shared_ptr<const Environment> environment;  // jobs of one stub share it
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_BUILD_JOB_H_
