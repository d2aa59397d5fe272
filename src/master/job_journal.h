// The records of the jobs that wait or run, and of ended jobs that observers have not received yet.
#ifndef KESTRUN_MASTER_JOB_JOURNAL_H_
#define KESTRUN_MASTER_JOB_JOURNAL_H_

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/tool_process.h"
#include "protocol/job_record.h"
#include "protocol/slot_request.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

// Gives the texts of a job while it waits or runs. They do not change; any thread may read them.
class JobDescription : public rc_base {
 public:
  virtual JobText GetText() const = 0;
};

// A description that holds the texts itself.
class OwnedJobText : public JobDescription {
 public:
  explicit OwnedJobText(JobText text) : text_(std::move(text)) {}
  JobText GetText() const override { return text_; }
  const JobText& Get() const { return text_; }

 private:
  const JobText text_;
};

// The texts that a client sends with its request for a slot.
JobText ToJobText(const SlotTexts& texts);

// Holds the jobs that the master runs, and those of clients that became their tool. Add, Start and Finish cost about a
// microsecond each.
//
//   outcome                left by
//   kWaiting               Start: kRunning; Finish: one of the outcomes below
//   kRunning               Finish: one of the outcomes below
//   kOk, kFailed and more  nothing: a second Start or Finish changes nothing
//
// Without observers a job that has ended leaves only a count. With observers its record is kept until all of them have
// received it or the bound is reached; a record that is dropped before counts as missed for each observer that has not
// received it.
//
// Each change of a job has a number, a job is listed under its latest change, and an observer reads on from the last
// number that it got. So an observer that reads seldom receives each job once, in its latest state.
//
// Threads: any; the lock is innermost and no system call is made under it.
class JobJournal {
 public:
  using ParentOf = u32 (*)(u32 processId);
  using Observer = u64;

  // Records of ended jobs, at most, that wait for observers, and about how many bytes they take.
  static constexpr std::size_t kMostEnded = 16384;
  static constexpr std::size_t kMostEndedBytes = 16 << 20;

  struct End {
    JobOutcome outcome = JobOutcome::kUnknown;
    bool hasExitCode = false;
    i32 exitCode = 0;
    i32 signal = 0;
    std::int64_t endedUs = JobRecord::kNone;
    std::int64_t cpuUs = JobRecord::kNone;            // kNone: the largest sample is kept
    std::int64_t peakMemoryBytes = JobRecord::kNone;  // replaced by a larger sample
    std::int64_t outputBytes = JobRecord::kNone;
    std::string outputHead{};
  };

  JobJournal(u32 slots, ParentOf parentOf, std::size_t mostEnded = kMostEnded);
  JobJournal(const JobJournal&) = delete;
  JobJournal& operator=(const JobJournal&) = delete;

  // The job's number. `clientProcess` may be 0.
  u64 Add(const rc_ptr<JobDescription>& description, u32 clientProcess);
  // The job has its slot, since `startedUs`. `process` is that of its tool, 0 if the client's process is, or is to
  // become, the tool. `slot` may be -1.
  void Start(u64 number, i32 slot, u32 process, std::int64_t startedUs = SteadyMicroseconds());
  // Nothing for an unknown number, so that the first end of a job counts.
  void Finish(u64 number, End end);
  // Looks for the nearest job and observer among the ancestors of the job's client; without observers it does nothing.
  // To be called while the client lives; it makes some system calls.
  void FindParent(u64 number);

  // True while an observer follows, so that costly figures need only be collected then. Relaxed: no other data is read
  // by its means, and an answer that is out of date for a moment costs one figure.
  bool IsObserved() const { return isObserved_.load(std::memory_order_relaxed); }

  // Adds an observer. The first records that it receives are the jobs that run and wait now.
  Observer Join(u32 rootProcess);
  void Leave(Observer observer);
  // The encoded records after the observer's position, up to about `mostBytes`; the position moves behind them, and is
  // returned in `latest`. Empty if there is nothing new.
  std::string Take(Observer observer, std::size_t mostBytes, u64& latest);
  // The number of the last change.
  u64 GetLatest() const;

  // The jobs that run, then those that wait, as far as they fit.
  std::string Snapshot(std::size_t mostBytes) const;
  // With the missed records of this observer; 0 is none.
  JournalState GetState(Observer observer) const;

  // True if no job runs or waits and all observers have received everything. Nothing will change until the next Add,
  // which then calls the listener once, without the lock. False without a listener.
  bool Rest();
  // Not while another thread is in Add, which calls the listener without the lock.
  void SetListener(std::function<void()> listener);

  // For samples: processes of the jobs that run, by the job's number.
  std::vector<std::pair<u64, u32>> GetRunning() const;
  void AddSample(u64 number, const platform::ProcessUsage& usage);

 private:
  // The ancestors of a process for which an observer asked for the jobs below, the nearest first. They do not change
  // once they stand in a job; null if there are none.
  using Roots = std::shared_ptr<const std::vector<u32>>;
  // What was found among the ancestors of a process: the nearest job, if any, and the roots.
  struct Above {
    u64 parent = 0;
    Roots roots{};
  };
  struct Entry {
    JobRecord record;
    rc_ptr<JobDescription> description;  // until the job has ended
    Roots roots{};
    u32 toolProcess = 0;
    u64 change = 0;
  };
  struct Follower {
    u64 position = 0;
    u32 rootProcess = 0;  // the first of its roots, if it has any
    Roots roots{};
    u64 missed = 0;
  };

  void Touch(Entry& entry);
  void Count(const JobRecord& record);
  void Forget(u64 number);
  void SetParent(Entry& entry, const Above& above);
  void DropRead();
  void DropOldest();
  Above LookAbove(u32 process) const;
  bool FindAbove(u32 process, Above& above) const;
  static JobRecord RecordOf(const Entry& entry, u32 rootProcess);

  const u32 slots_;
  const ParentOf parentOf_;
  const std::size_t mostEnded_;
  const std::int64_t startedUs_;
  const u64 startedUnixUs_;
  std::atomic<bool> isObserved_{false};
  std::function<void()> listener_;

  mutable std::mutex lock_;
  // Guarded by lock_.
  bool isResting_ = false;
  u64 lastNumber_ = 0;
  u64 lastChange_ = 0;
  u64 lastObserver_ = 0;
  std::map<u64, Entry> jobs_;        // by number: those that wait or run, and those that ended and are kept
  std::map<u64, u64> changes_;       // change to number, while observed
  std::map<u64, u64> ended_;         // change to number, of the jobs that ended and are kept
  std::size_t endedBytes_ = 0;       // of their texts
  std::map<u32, u64> jobOfProcess_;  // of jobs that run
  std::map<Observer, Follower> followers_;
  // The result of the last search among ancestors, and its client: all jobs of a script have the same client.
  u32 lastClient_ = 0;
  Above lastAbove_;
  u64 done_ = 0;
  u64 failed_ = 0;
  u64 unknown_ = 0;
  u64 running_ = 0;
  u64 waiting_ = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_JOB_JOURNAL_H_
