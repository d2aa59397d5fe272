#include "master/running_tools.h"

namespace kestrun {

// Entering the tool and reading the mark are one step under the lock, as are setting the mark and looking for the tool
// in Cancel. So whichever comes second ends the tool.
bool RunningTools::Add(BuildJob& job, const rc_ptr<Process>& process) {
  const Lock lock(lock_);
  tools_[job.id] = {&job, process};
  return !job.isCancelled;
}

void RunningTools::Remove(u32 jobId) {
  const Lock lock(lock_);
  tools_.erase(jobId);
}

void RunningTools::Cancel(BuildJob& job) {
  const Lock lock(lock_);
  job.isCancelled = true;
  const auto tool = tools_.find(job.id);
  if (tool != tools_.end()) tool->second.process->Kill();
}

void RunningTools::CancelWhere(const std::function<bool(const BuildJob&)>& isOrphan) {
  const Lock lock(lock_);
  for (const auto& [id, tool] : tools_) {
    if (tool.job->isCancelled || !isOrphan(*tool.job)) continue;
    tool.job->isCancelled = true;
    tool.process->Kill();
  }
}

}  // namespace kestrun
