// The bookkeeper of the master: groups jobs into projects, hands them to the local job queue, takes their results.
#ifndef KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_
#define KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "master/build_job.h"
#include "master/project.h"
#include "master/running_tools.h"
#include "master/server.h"
#include "messaging/message_dispatcher.h"
#include "runtime/blocking_queue.h"
#include "runtime/ini_file.h"
#include "runtime/memory_stream.h"
#include "runtime/process.h"
#include "runtime/rc_ptr.h"
#include "runtime/thread.h"

namespace kestrun {

// A job stands in exactly one of three maps from AddJob on: pending, active, finished. Jobs reach the local job queue
// in ascending job number; the number of local build threads is the only limit on how many run at once. Finished jobs
// and projects stay until the master ends.
//
// Settings of the section Extensions, all off by default, read once by the constructor:
//
//   CancelOrphanedJobs  a job whose client is gone ends without a result of its own, with exit code -1: its tool is
//                       ended if it runs, and is never started otherwise. Such a job takes the same road as the others,
//                       through the queue and JobResult, so that every count ends as it should.
//   EnforceJobTimeout   a tool that runs longer than its job's limit is ended, with exit code 124 and a line that says
//                       so behind its standard error.
//   DiscardOutput       a finished job is counted and not kept: its output and its environment go even if somebody
//                       else holds the job. A second result for it counts as one for an unknown job.
//
// Threads: everything but SendOutput, SendResult and Stop runs on the dispatcher client's thread, one call at a time,
// and needs no lock for that reason. SendOutput runs on local build threads. Stop may come from any thread and touches
// only the queue and the threads. What the message thread and the local build threads share beside the queue is the
// table of running tools, which has a lock of its own, and a job's mark that it is cancelled.
class BuildJobScheduler {
 public:
  // Starts the local build threads; 0 counts as 1, and those that the system refuses are done without. The dispatcher
  // outlives the scheduler.
  BuildJobScheduler(u32 maxConcurrentJobs, IniFile* settings, MessageDispatcher* dispatcher);
  // Stops the threads if Stop has not.
  ~BuildJobScheduler();
  BuildJobScheduler(const BuildJobScheduler&) = delete;
  BuildJobScheduler& operator=(const BuildJobScheduler&) = delete;

  // False if not one could be started.
  bool HasThreads() const { return !localThreads_.empty(); }

  void AddJob(const rc_ptr<BuildJob>& job);
  std::size_t CountUnfinishedJobs() const { return pendingJobs_.size() + activeJobs_.size(); }
  void ScheduleIfPending();
  // The client's channel has ended. Without CancelOrphanedJobs nothing happens. Waits for no tool.
  void ClientGone(const Address& client);
  // A script stub at this address announces its project. It takes the place of a record of the same name, which lives
  // on for as long as it has jobs.
  void NewProject(const std::string& name, u32 totalJobs, u32 flags, const Address& from);

  // Records how a job ended; without output its two segments are null or empty. Gives the job, or an empty pointer if
  // the server is empty, the number unknown, or the result the second one for its job. `finished`, if not null, becomes
  // true when the job is given.
  rc_ptr<BuildJob> JobResult(const rc_ptr<Server>& server, u32 id, i32 exitCode,
                             const rc_ptr<Message::Segment>& stdoutText, const rc_ptr<Message::Segment>& stderrText,
                             u64 startTime, i32 elapsedMs, bool* finished = nullptr);
  // The job's result has gone out: it moves to the finished ones, or is let go with DiscardOutput, and its project ends
  // if it was the last.
  void JobCompleted(const rc_ptr<BuildJob>& job);

  const rc_ptr<Server>& GetServer() const { return localServer_; }

  // A MSG_BUILD_RESULT that ends the job for its stub, or one with output alone. False without a channel, or if
  // sending failed.
  bool SendResult(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText, const std::string& stderrText,
                  i32 exitCode, bool keepGoing);
  // The same with the output as it stands in a MSG_LOCAL_JOB_RESULT, which is not copied for it.
  bool PassResultOn(const rc_ptr<MessageChannel>& channel, const Message& localResult, i32 exitCode, bool keepGoing);
  bool SendOutput(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText, const std::string& stderrText);

  // Ends the local build threads; queued jobs are never run. Waits for running tools for 30 s at most, then ends the
  // process with code 1: the tools go with it.
  void Stop();

 private:
  void Schedule();
  void ProjectFinished(Project& project);
  void ForgetClientOf(const BuildJob& job);
  void LogOutcome(const BuildJob& job, i32 elapsedMs);
  void StopForUnknownProject(const BuildJob& job);
  // Body of the local build threads (local_job_queue.cc).
  void LocalBuildLoop();
  void RunJob(BuildJob& job, const Address& localAddress);
  void SkipJob(BuildJob& job, const Address& localAddress);
  struct ToolEnd {
    int exitCode;
    bool isOverdue;  // ended because it ran longer than its job's limit
  };
  ToolEnd RunTool(BuildJob& job, const rc_ptr<Process>& process, MemoryStream* out, MemoryStream* err);
  u32 WaitLimitMs(const BuildJob& job) const;

  std::map<u32, rc_ptr<BuildJob>> pendingJobs_;   // accepted and not yet handed to the queue
  std::map<u32, rc_ptr<BuildJob>> activeJobs_;    // handed to the queue and without a result
  std::map<u32, rc_ptr<BuildJob>> finishedJobs_;  // never shrinks
  // Those pending or active; with CancelOrphanedJobs only.
  std::map<Address, std::map<u32, rc_ptr<BuildJob>>> jobsOfClients_;
  std::map<std::string, rc_ptr<Project>> projects_;
  std::vector<rc_ptr<Project>> replacedProjects_;  // records that another announcement of their name put aside
  std::vector<rc_ptr<Thread>> localThreads_;       // constant after construction
  BlockingQueue<rc_ptr<BuildJob>> localQueue_;     // an empty pointer ends the thread that takes it
  const rc_ptr<Server> localServer_;
  MessageDispatcher* const dispatcher_;
  const bool cancelsOrphans_;
  const bool enforcesTimeout_;
  const bool discardsOutput_;
  RunningTools runningTools_;
  u32 jobsReceived_ = 0;
  std::atomic<bool> stopped_{false};
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_
