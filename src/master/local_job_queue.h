// The queue of jobs that the master runs itself, and the threads that take one job at a time from it and run its tool.
#ifndef KESTRUN_MASTER_LOCAL_JOB_QUEUE_H_
#define KESTRUN_MASTER_LOCAL_JOB_QUEUE_H_

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "master/build_job.h"
#include "master/job_output.h"
#include "master/job_slots.h"
#include "master/output_budget.h"
#include "master/running_tools.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/ini_file.h"
#include "runtime/process/process.h"
#include "runtime/threads/blocking_queue.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// Owned by the scheduler. Each job that is taken from the queue is answered by one MSG_LOCAL_JOB_RESULT. It is offered
// to the taker of results on the thread that ran the job, and posted to the master's own service if the taker refuses
// it. Of the job itself only the echo text changes, and isCancelled. Without slots the number of threads is the only
// limit on how many jobs run at once.
//
// There is one bound on the output that is collected or that clients have not taken. Over it, output is sent to the
// client in parts (MSG_BUILD_RESULT without an exit code), and a tool whose client does not read waits.
//
// Settings of the section Extensions, off by default, read once by the constructor:
//
//   CancelOrphanedJobs  while the queue stops, tools whose client has no channel any more are ended.
//   DiscardOutput       results that clients have not taken count against the bound. When it is off, the job records
//                       keep them for good, so that only what is collected and sent in parts counts.
//   EnforceJobTimeout   a tool that runs longer than its job's limit is ended, with exit code 124 and a line that says
//                       so behind its standard error.
//
// A tool may itself be a client that waits for jobs, as a script in a script is. With slots, what a client below a
// running job asks for does not wait for the threads, which such jobs may all hold: it has a queue and threads of its
// own, as many as there are others at most, and only while it has jobs.
//
// Threads: "Local build thread", any number, run the tools. Push, Cancel and Stop may come from any thread; none of
// them waits for a tool but Stop.
class LocalJobQueue {
 public:
  static constexpr u64 kOutputLimit = 256 << 20;

  // Starts the threads; 0 counts as 1, and the queue works with as many as the system allows. The dispatcher outlives
  // the queue. With `slots` (Extensions/TransparentTools) each tool runs in one of them, which clients take as well,
  // and with the client's environment (less the pipe of a make's jobserver) and priority; they outlive the queue, and
  // are stopped before it. `outputLimit` is the bound on output in memory, see OutputBudget. The journal, which may be
  // null, outlives the queue.
  LocalJobQueue(u32 threadCount, IniFile& settings, MessageDispatcher& dispatcher, JobSlots* slots = nullptr,
                u64 outputLimit = kOutputLimit, JobJournal* journal = nullptr);
  // Stops the threads if Stop has not.
  ~LocalJobQueue();
  LocalJobQueue(const LocalJobQueue&) = delete;
  LocalJobQueue& operator=(const LocalJobQueue&) = delete;

  // True if the result was handled; otherwise it is posted. The taker must not wait for the queue's threads or for a
  // client.
  using ResultTaker = std::function<bool(const rc_ptr<Message>&)>;
  // Before the first Push. Handling a result where it arises saves waking a thread for it.
  void SetResultTaker(ResultTaker taker) { takeResult_ = std::move(taker); }

  // False if no thread could be started.
  bool HasThreads() const { return !threads_.empty(); }

  void Push(const rc_ptr<BuildJob>& job);
  // The job's tool is ended if it runs, and is not started otherwise. The job keeps its turn in the queue and is then
  // answered with exit code -1.
  void Cancel(BuildJob& job) { runningTools_.Cancel(job); }

  // Ends the threads; queued jobs are never run. Waits for running tools for 30 s at most, then ends the process with
  // code 1, which ends the tools with it.
  void Stop();

 private:
  struct ToolEnd {
    int exitCode;
    bool isOverdue;  // ended because it ran longer than its job's limit
    std::int64_t endedUs = JobRecord::kNone;
  };

  // The jobs of a client below a running job.
  struct NestedJobs {
    std::deque<rc_ptr<BuildJob>> jobs{};
    std::size_t threads = 0;
  };

  bool IsNested(const BuildJob& job);
  bool PushNested(const rc_ptr<BuildJob>& job);
  void NestedLoop();
  rc_ptr<BuildJob> PopNested(u32 client);
  std::vector<rc_ptr<Thread>> ListThreads();
  void LocalBuildLoop();
  // `thread` is the number that is shown as the job's slot if the queue has no JobSlots.
  void HandleJob(BuildJob& job, i32 thread);
  void RunJob(BuildJob& job, i32 thread);
  void SkipJob(BuildJob& job);
  ToolEnd RunTool(BuildJob& job, const rc_ptr<Process>& process, const rc_ptr<JobOutput>& output, i32 thread);
  u32 WaitLimitMs(const BuildJob& job) const;
  void Answer(const rc_ptr<Message>& result);
  void CancelOrphans();
  void TellJournal(const BuildJob& job, Process& process, const ToolEnd& end, u64 outputBytes, const Message& result);

  MessageDispatcher& dispatcher_;
  const Address localAddress_;
  JobSlots* const slots_;  // may be null
  const rc_ptr<OutputBudget> budget_;
  const bool keepsOutput_;
  const bool cancelsOrphans_;
  const bool enforcesTimeout_;
  ResultTaker takeResult_;  // may be empty
  JobJournal* const journal_;
  std::atomic<i32> threadCount_{0};
  BlockingQueue<rc_ptr<BuildJob>> jobs_;  // an empty pointer ends the thread that takes it
  RunningTools runningTools_;
  std::vector<rc_ptr<Thread>> threads_;  // constant after construction
  CriticalSection nestedLock_;
  // Guarded by nestedLock_.
  std::map<u32, NestedJobs> nested_;  // by the client's process
  std::deque<u32> newClients_;        // one for each thread that has just been started
  std::vector<rc_ptr<Thread>> nestedThreads_;
  Address lastClient_;  // the client that was last looked at, and what was found
  bool isLastNested_ = false;
  std::atomic<bool> isStopped_{false};
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_LOCAL_JOB_QUEUE_H_
