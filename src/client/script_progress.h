// What a script stub shows of its jobs.
#ifndef KESTRUN_CLIENT_SCRIPT_PROGRESS_H_
#define KESTRUN_CLIENT_SCRIPT_PROGRESS_H_

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "protocol/journal_observer.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// On a terminal one status line that is overwritten, "[done/all] running: names", below the output of the jobs;
// everywhere a line for each failure as soon as it is known, and at the end the jobs that failed and those that were
// never started.
//
// The names of running jobs come from the master, which this observes; without an answer only the numbers are shown.
//
// Threads: one that observes, from Observe to the end of the object. All other calls come from one thread.
class ScriptProgress {
 public:
  // A job of the script, in its order.
  struct Job {
    u32 line = 0;  // of the script, from 1
    std::string label;
    std::string command;
  };

  // True if the standard error stream is a terminal that can write over a line.
  static bool HasTerminal();

  // The status line has at most `columns` columns; with 0 there is none. All lines go to `out`.
  ScriptProgress(std::vector<Job> jobs, std::FILE* out, std::size_t columns);
  ~ScriptProgress();
  ScriptProgress(const ScriptProgress&) = delete;
  ScriptProgress& operator=(const ScriptProgress&) = delete;

  // Begins to observe the master of this id; only the jobs of this process are shown.
  void Observe(const std::string& masterId);
  void Take(const JournalNews& news, u32 clientProcess);

  // Called before and after output of jobs: between the two the line is erased.
  void Hide();
  void Show();
  // A job has ended. `line` is 0 if it is not known.
  void OnResult(u32 line, i32 exitCode);
  // The run is over: erases the line. With `listsFailures` all failures are listed once more, in one place.
  void Finish(bool listsFailures);

 private:
  void Receive();
  void Flush();
  std::string GetLine() const;
  void Draw();
  void Erase();
  void Print(const std::string& text);
  void TellFailure(const Job& job, i32 exitCode);
  void TellNeverStarted();

  const std::vector<Job> jobs_;
  std::FILE* const out_;
  const std::size_t columns_;
  std::unique_ptr<JournalObserver> observer_;
  rc_ptr<Thread> thread_;
  std::atomic<bool> isEnding_{false};
  Condition flushed_;

  CriticalSection lock_;
  // Guarded by lock_.
  std::size_t done_ = 0;
  std::vector<std::pair<std::size_t, i32>> failures_;  // index of the job, exit code
  std::set<u64> numbers_;               // in the journal, of this script's jobs: they are in the order of the script
  std::set<u64> started_;               // of those
  std::map<u64, std::string> running_;  // label by number
  bool isShown_ = false;
  std::string shown_;  // the line, if isShown_
  bool isHidden_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_SCRIPT_PROGRESS_H_
