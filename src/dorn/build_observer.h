// Collects the job records of dorn's own build while it runs.
#ifndef KESTRUN_DORN_BUILD_OBSERVER_H_
#define KESTRUN_DORN_BUILD_OBSERVER_H_

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "dorn/build_record.h"
#include "protocol/journal_observer.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun::dorn {

// Follows a master's jobs and keeps those of this process's build: the jobs of its descendants, and those for which the
// master does not know any observer. Jobs that belong to another dorn of the same master are left out.
//
// Threads: one that receives, from Start to Finish. All else on the thread of the owner.
class BuildObserver {
 public:
  // Beyond so many jobs they are only counted.
  static constexpr std::size_t kMostJobs = 1000000;

  BuildObserver() = default;
  // Finishes.
  ~BuildObserver();
  BuildObserver(const BuildObserver&) = delete;
  BuildObserver& operator=(const BuildObserver&) = delete;

  // False, with the reason, if the master can't be observed.
  bool Start(const std::string& id, std::string& error);
  // The build has ended: waits until the master has told of the end of its last job, for at most a second or so, and
  // ends the connection. Moves what is known into the record.
  void Finish(BuildRecord& record);

 private:
  void Receive();
  void Take(const JournalNews& news);
  bool HasRunningJobs();
  void Flush();

  std::unique_ptr<JournalObserver> connection_;
  rc_ptr<Thread> thread_;
  std::atomic<bool> isEnding_{false};
  Condition flushed_;
  CriticalSection lock_;
  // Guarded by lock_.
  std::map<u64, JobRecord> jobs_;
  u64 dropped_ = 0;
  JournalState state_;
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_BUILD_OBSERVER_H_
