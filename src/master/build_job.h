#ifndef KESTRUN_MASTER_BUILD_JOB_H_
#define KESTRUN_MASTER_BUILD_JOB_H_

#include <atomic>
#include <memory>
#include <string>

#include "master/job_journal.h"
#include "messaging/message.h"
#include "runtime/base/environment.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/path.h"
#include "transport/sockets/address.h"

namespace kestrun {

class Project;

enum JobState : u32 {
  JOB_NEW = 0,
  JOB_SCHEDULED = 1,  // in the local job queue, or running
  JOB_FINISHED = 2,
};

// One tool invocation: what to run, for which stub, and how it ended.
//
//   state          the job is                                      it goes on when
//   JOB_NEW        in the request handler's queue, then pending    the scheduler hands it to the local job queue
//                  in the scheduler
//   JOB_SCHEDULED  in the local job queue, or its tool runs        its result has been sent to the client
//   JOB_FINISHED   kept as a record, or released (DiscardOutput)   never
//
// Made from its request, then owned by the message thread. While a job is scheduled, a local build thread reads what is
// to be run and empties the echo text; the message thread does not touch those fields for that time. isCancelled may be
// read by any thread at any time, and so may what GetText gives once the job is in the journal.
class BuildJob : public JobDescription {
 public:
  explicit BuildJob(u32 jobId) : id(jobId) {}

  JobText GetText() const override;

  const u32 id;  // from 1 upward; the key of every map of jobs
  u32 state = JOB_NEW;
  Path toolPath;  // part of the record: what is run is the command line
  Path workingDirectory;
  std::string commandLine;  // the tool's path in quotes, less those that it holds itself, a blank, the arguments
  u32 flags = 0;
  u32 timeoutSeconds = 0;  // 0 is none
  std::string echoText;
  std::string projectName;
  std::string name;                      // -n
  u32 clientProcess = 0;                 // 0: the client did not say
  u32 scriptLine = 0;                    // returned with the result to a client that sent it; 0: it sent none
  u64 number = 0;                        // in the journal
  Address clientAddress;                 // the channel of the stub
  Project* project = nullptr;            // lives as long as the scheduler
  std::atomic<bool> isCancelled{false};  // the client has gone
  i32 exitCode = 0;
  // What the tool wrote, shared with the message that brought it; null for nothing.
  rc_ptr<Message::Segment> stdoutText;
  rc_ptr<Message::Segment> stderrText;
  // The client's, shared by its jobs. With Extensions/TransparentTools the tool gets it; otherwise it is only part of
  // the record, and the tool inherits the master's.
  std::shared_ptr<const Environment> environment;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_BUILD_JOB_H_
