// Breaks deadlocks between jobs that wait for one another and the limit on running jobs.
#ifndef KESTRUN_MASTER_JOB_WATCH_H_
#define KESTRUN_MASTER_JOB_WATCH_H_

#include "master/job_slots.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// A running job may wait for one that has no slot yet: through programs between them in a pipeline, through a file or a
// lock. The master can't see such a dependency, but it can see that nothing happens: if for an interval no job was
// granted or has ended, and no running job's processes have used processor time, one more job runs beside the limit.
//
// Threads: one, "Job watch". It sleeps while no job waits for a slot. Processor times are read only after an interval
// without a change, twice, and less and less often while the jobs are found to be busy.
class JobWatch {
 public:
  // The processor time of a process and all below it; see platform::ProcessorTimeOfTree.
  using TimeOf = u64 (*)(u32 processId);

  // Throws SyncException without a thread. The slots outlive this object.
  JobWatch(JobSlots& slots, TimeOf timeOf, u32 intervalMs = 1000);
  // Stops the slots.
  ~JobWatch();
  JobWatch(const JobWatch&) = delete;
  JobWatch& operator=(const JobWatch&) = delete;

 private:
  void Watch();
  // True if nothing happened in this interval; the generation is then that of the idle jobs.
  bool AreIdle(u32 intervalMs, u64& generation);

  JobSlots& slots_;
  const TimeOf timeOf_;
  const u32 intervalMs_;
  Condition end_;
  bool isEnding_ = false;  // owned by the thread
  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_JOB_WATCH_H_
