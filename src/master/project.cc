#include "master/project.h"

namespace kestrun {

bool Project::AddJob(const rc_ptr<BuildJob>& job) {
  job->project = this;
  pending[job->id] = job;
  ++receivedJobs;
  if (receivedJobs <= totalJobs) return false;
  totalJobs = receivedJobs;
  return true;
}

void Project::CompleteJob(const rc_ptr<BuildJob>& job) {
  pending.erase(job->id);
  completed[job->id] = job;
}

void Project::ForgetJob(const BuildJob& job) {
  pending.erase(job.id);
  ++forgottenJobs;
}

}  // namespace kestrun
