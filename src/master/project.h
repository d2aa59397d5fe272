#ifndef KESTRUN_MASTER_PROJECT_H_
#define KESTRUN_MASTER_PROJECT_H_

#include <cstddef>
#include <map>
#include <string>

#include "master/build_job.h"
#include "messaging/message_channel.h"
#include "runtime/base/rc_ptr.h"

namespace kestrun {

// The jobs that share a project name, and how many of them have ended. Used in the master's message handler only.
//
// A project that a script stub announced has its number of jobs from the start; one that was made for a job grows with
// each job that arrives. A project that has ended is kept, and a later job of its name is added to it.
class Project : public rc_base {
 public:
  Project(const std::string& projectName, u32 projectFlags, u32 jobCount)
      : name(projectName), flags(projectFlags), totalJobs(jobCount) {}

  // Takes a job in as pending. True if the project has grown by it.
  bool AddJob(const rc_ptr<BuildJob>& job);
  // Moves a job from pending to completed.
  void CompleteJob(const rc_ptr<BuildJob>& job);
  // The same for a job that is not to be kept: it is only counted.
  void ForgetJob(const BuildJob& job);
  std::size_t CompletedCount() const { return completed.size() + forgottenJobs; }
  // Nothing is pending and as many jobs have completed as the project holds.
  bool IsFinished() const { return pending.empty() && CompletedCount() == totalJobs; }

  const std::string name;
  const u32 flags;
  u32 totalJobs;
  u32 receivedJobs = 0;
  u32 dispatchedJobs = 0;  // part of the record; nothing in the master reads it
  std::map<u32, rc_ptr<BuildJob>> pending;
  std::map<u32, rc_ptr<BuildJob>> completed;
  std::size_t forgottenJobs = 0;       // completed and not kept
  rc_ptr<MessageChannel> stubChannel;  // the script stub that announced the project; released when the project ends
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_PROJECT_H_
