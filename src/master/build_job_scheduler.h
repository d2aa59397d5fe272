// The job records of the master: which jobs and projects there are, and how far each has come.
#ifndef KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_
#define KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "master/build_job.h"
#include "master/local_job_queue.h"
#include "master/project.h"
#include "master/result_sender.h"
#include "master/server.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/ini_file.h"

namespace kestrun {

// Groups jobs into projects, hands them to the local job queue, takes their results and tells a script stub when its
// project is over. From AddJob on a job is in one of three maps: pending, active, finished; it is in none between
// JobResult and JobCompleted, which one message handler calls one after the other. Jobs reach the queue in ascending
// job number. Finished jobs, and projects that had a job, stay until the master ends.
//
// Settings of the section Extensions, off by default, read once by the constructor (the queue has its own):
//
//   CancelOrphanedJobs  a job whose client is gone is cancelled. It passes through the queue and JobResult like any
//                       other, so that the counts of its project come out right.
//   DiscardOutput       a finished job is counted and not kept: its output and its environment are released even if the
//                       job is still referred to. A second result for it counts as one for an unknown job.
//
// Threads: everything but Stop, SendResult and SendOutput is called by the master's message handler, one call at a
// time, and so needs no lock. Those three may come from any thread and touch no record.
class BuildJobScheduler {
 public:
  // Starts the local job queue. The dispatcher outlives the scheduler, and so does the journal, which may be null.
  BuildJobScheduler(u32 maxConcurrentJobs, IniFile* settings, MessageDispatcher* dispatcher, JobSlots* slots = nullptr,
                    JobJournal* journal = nullptr);
  BuildJobScheduler(const BuildJobScheduler&) = delete;
  BuildJobScheduler& operator=(const BuildJobScheduler&) = delete;

  bool HasThreads() const { return localQueue_.HasThreads(); }
  // See LocalJobQueue.
  void SetResultTaker(LocalJobQueue::ResultTaker taker) { localQueue_.SetResultTaker(std::move(taker)); }

  void AddJob(const rc_ptr<BuildJob>& job);
  std::size_t CountUnfinishedJobs() const { return pendingJobs_.size() + activeJobs_.size(); }
  void ScheduleIfPending();
  // The client's channel has ended: projects that it announced and sent no job for are forgotten, and with
  // CancelOrphanedJobs its jobs are cancelled. Waits for no tool.
  void ClientGone(const Address& client);
  // A script stub at this address announces its project. The new record replaces an earlier one of the same name, which
  // lives on if it has jobs. A client that announced the earlier record still adds its own jobs to that one, up to the
  // number that it announced.
  void NewProject(const std::string& name, u32 totalJobs, u32 flags, const Address& from);

  // Records how a job ended; without output its two segments are null or empty. Gives the job, or an empty pointer if
  // the server is empty, the number unknown, or the result the second one for its job. `finished`, if not null, becomes
  // true when the job is given. `startTime` belongs to the interface and is not used: the log's times are the elapsed
  // time before now.
  rc_ptr<BuildJob> JobResult(const rc_ptr<Server>& server, u32 id, i32 exitCode,
                             const rc_ptr<Message::Segment>& stdoutText, const rc_ptr<Message::Segment>& stderrText,
                             u64 startTime, i32 elapsedMs, bool* finished = nullptr);
  // The job's result has been sent: the job moves to the finished ones, or is released with DiscardOutput, and its
  // project ends if this was its last job.
  void JobCompleted(const rc_ptr<BuildJob>& job);

  const rc_ptr<Server>& GetServer() const { return localServer_; }

  // See result_sender.h.
  bool SendResult(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText, const std::string& stderrText,
                  i32 exitCode, bool keepGoing) {
    return SendBuildResult(channel, stdoutText, stderrText, exitCode, keepGoing);
  }
  bool SendOutput(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText, const std::string& stderrText) {
    return SendBuildOutput(channel, stdoutText, stderrText);
  }

  // Stops the local job queue, which waits for running tools.
  void Stop() { localQueue_.Stop(); }

  // The number of projects without a job that one client may have announced. Beyond it the oldest one is forgotten, so
  // that a client can't fill the master's memory with announcements.
  static constexpr std::size_t kMostUnusedProjects = 16;

 private:
  // What one client has announced.
  struct Announcements {
    std::map<std::string, rc_ptr<Project>> byName;
    std::deque<std::string> unused;  // the names of those without a job, the oldest first
  };

  rc_ptr<Project> FindProject(const BuildJob& job);
  void JoinProject(const rc_ptr<BuildJob>& job);
  void ForgetUnused(Announcements& from, const std::string& name);
  void ForgetAnnouncements(const Address& client);
  void Schedule();
  void ProjectFinished(Project& project);
  void ForgetClientOf(const BuildJob& job);
  void LogOutcome(const BuildJob& job, i32 elapsedMs);
  void StopForUnknownProject(const BuildJob& job);

  std::map<u32, rc_ptr<BuildJob>> pendingJobs_;   // accepted and not yet handed to the queue
  std::map<u32, rc_ptr<BuildJob>> activeJobs_;    // handed to the queue and without a result
  std::map<u32, rc_ptr<BuildJob>> finishedJobs_;  // never shrinks
  // The pending and active jobs of each client; filled with CancelOrphanedJobs only.
  std::map<Address, std::map<u32, rc_ptr<BuildJob>>> jobsOfClients_;
  std::map<std::string, rc_ptr<Project>> projects_;  // the latest of each name
  std::map<Address, Announcements> announcements_;   // of the clients whose channels live
  std::vector<rc_ptr<Project>> usedProjects_;        // projects with a job, which holds a plain pointer to its project
  const rc_ptr<Server> localServer_;
  MessageDispatcher* const dispatcher_;
  JobJournal* const journal_;
  const bool namesJobsInLog_;
  const bool cancelsOrphans_;
  const bool discardsOutput_;
  LocalJobQueue localQueue_;  // last: its threads end before the records are destroyed
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_BUILD_JOB_SCHEDULER_H_
