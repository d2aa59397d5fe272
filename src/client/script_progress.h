// What a script shows of its jobs on a terminal.
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

// One line that is written over again and again, "[done/all] running: names", below what the jobs print; a line for
// each failure as soon as it is known; and at the end what failed and what was never started.
//
// The names of what runs come from the master, which this observes; without that the numbers stand alone.
//
// Threads: one that observes, from Observe to the end of the object. All else on one thread.
class ScriptProgress {
 public:
  // A job of the script, in its order.
  struct Job {
    u32 line = 0;  // of the script, from 1
    std::string label;
    std::string command;
  };

  // True if the standard error stream is a terminal that can write over a line.
  static bool IsWanted();

  // Lines of at most so many columns go to `out`.
  ScriptProgress(std::vector<Job> jobs, std::FILE* out, std::size_t columns);
  ~ScriptProgress();
  ScriptProgress(const ScriptProgress&) = delete;
  ScriptProgress& operator=(const ScriptProgress&) = delete;

  // Begins to follow the master of this id, as far as the jobs of this process go.
  void Observe(const std::string& masterId);
  void Take(const JournalNews& news, u32 clientProcess);

  // Around what the jobs print: the line is out of the way between the two.
  void Hide();
  void Show();
  // A job has ended. `line` is 0 where it is not known.
  void OnResult(u32 line, i32 exitCode);
  // The run is over: the line goes. With `listsFailures` they are named once more, in one place.
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
  bool isHidden_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_SCRIPT_PROGRESS_H_
