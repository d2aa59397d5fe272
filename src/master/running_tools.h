#ifndef KESTRUN_MASTER_RUNNING_TOOLS_H_
#define KESTRUN_MASTER_RUNNING_TOOLS_H_

#include <functional>
#include <map>

#include "master/build_job.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/process/process.h"

namespace kestrun {

// Maps job numbers to running tools, so that one thread can end a tool that another thread waits for.
//
// Owned by the local job queue. A local build thread adds its tool when it has started and removes it when it has
// ended, and keeps the job alive for that time. The message thread, or the thread that stops the master, cancels jobs.
// Each operation holds the lock throughout, and none waits for a tool. The tool of a cancelled job is ended in either
// order of Add and Cancel: by Cancel if it is in the table already, otherwise by the thread that adds it.
class RunningTools {
 public:
  // False if the job has been cancelled; the caller has to end the tool.
  bool Add(BuildJob& job, const rc_ptr<Process>& process);
  void Remove(u32 jobId);
  // Marks the job, and ends its tool with all its descendants if it runs. Does not wait for their end.
  void Cancel(BuildJob& job);
  // Cancels each running job for which `isOrphan` is true. It is called under the lock and must not call this object.
  void CancelWhere(const std::function<bool(const BuildJob&)>& isOrphan);

 private:
  CriticalSection lock_;
  struct Tool {
    BuildJob* job;
    rc_ptr<Process> process;
  };
  std::map<u32, Tool> tools_;  // guarded by lock_
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_RUNNING_TOOLS_H_
