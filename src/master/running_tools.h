#ifndef KESTRUN_MASTER_RUNNING_TOOLS_H_
#define KESTRUN_MASTER_RUNNING_TOOLS_H_

#include <functional>
#include <map>

#include "master/build_job.h"
#include "runtime/critical_section.h"
#include "runtime/process.h"
#include "runtime/rc_ptr.h"
#include "runtime/types.h"

namespace kestrun {

// The tools that run, by the number of their job: the way in which one thread ends a tool that another waits for.
//
// Threads: a local build thread adds its tool once it has started and removes it once it has ended, and holds the job
// for that time; the message thread, or the one that stops the master, cancels jobs. Each holds the lock for its whole
// call, and none of them waits for a tool. Whichever comes first of Add and Cancel, the tool of a cancelled job is
// ended: by Cancel if it is in the table, else by the thread that adds it. The table shares the processes with those
// threads.
class RunningTools {
 public:
  // False if the job has been cancelled; the caller is to end the tool then.
  bool Add(BuildJob& job, const rc_ptr<Process>& process);
  void Remove(u32 jobId);
  // Marks the job, and ends its tool with all its descendants if it runs. Does not wait for their end.
  void Cancel(BuildJob& job);
  // The same for each job of which `isOrphan` says so; it must not come back here.
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
