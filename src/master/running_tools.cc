#include "master/running_tools.h"

namespace kestrun {

bool RunningTools::Add(const BuildJob& job, const rc_ptr<Process>& process) {
  Lock lock(lock_);
  tools_[job.id] = process;
  return !job.isCancelled;
}

void RunningTools::Remove(u32 jobId) {
  Lock lock(lock_);
  tools_.erase(jobId);
}

void RunningTools::Cancel(BuildJob& job) {
  Lock lock(lock_);
  job.isCancelled = true;
  const auto tool = tools_.find(job.id);
  if (tool != tools_.end()) tool->second->Kill();
}

}  // namespace kestrun
