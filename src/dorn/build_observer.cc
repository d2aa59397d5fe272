#include "dorn/build_observer.h"

#include <algorithm>
#include <utility>

namespace kestrun::dorn {

namespace {

constexpr u32 kConnectMs = 2000;
constexpr u32 kReceiveMs = 1000;
// The master sees the end of a process a little after that process's parent does.
constexpr u32 kFlushLimitMs = 1000;
constexpr u32 kFlushStepMs = 200;

}  // namespace

BuildObserver::~BuildObserver() {
  BuildRecord unused;
  if (thread_) Finish(unused);
}

bool BuildObserver::Start(const std::string& id, std::string& error) {
  connection_ = JournalObserver::Connect(id, kConnectMs);
  if (!connection_ || !connection_->Ask(OBSERVE_FOLLOW, GetCurrentProcessId())) {
    error = "the master does not answer";
    return false;
  }
  // The answer to the flush shows that the master follows for this observer: no job of the build, which starts after
  // this call, is missed.
  connection_->Ask(OBSERVE_FLUSH);
  JournalNews news;
  do {
    if (connection_->Receive(kConnectMs, news) != JournalObserver::Outcome::kNews) {
      error = "the master does not answer";
      return false;
    }
    if (!news.refusal.empty()) {
      error = news.refusal;
      return false;
    }
    Take(news);
  } while (news.state.isLast == 0);
  thread_ = new Thread("Observer");
  return thread_->Start(MakeDelegate(&BuildObserver::Receive, this));
}

void BuildObserver::Receive() {
  JournalNews news;
  for (;;) {
    const JournalObserver::Outcome outcome = connection_->Receive(kReceiveMs, news);
    if (outcome == JournalObserver::Outcome::kNews) Take(news);
    // Whatever arrives after isEnding_ is still taken; only then the loop ends.
    if (outcome == JournalObserver::Outcome::kGone || isEnding_) break;
    if (news.state.isLast != 0) flushed_.Signal();
  }
  isEnding_ = true;
  flushed_.Signal();
}

void BuildObserver::Take(const JournalNews& news) {
  const u32 self = GetCurrentProcessId();
  const Lock lock(lock_);
  state_ = news.state;
  for (const JobRecord& job : news.jobs) {
    const auto known = jobs_.find(job.number);
    // A job comes without a root at first, while its ancestors are looked for, and may prove to be another build's.
    if (job.rootProcess != 0 && job.rootProcess != self) {
      if (known != jobs_.end()) jobs_.erase(known);
    } else if (known != jobs_.end()) {
      known->second = job;
    } else if (jobs_.size() < kMostJobs) {
      jobs_[job.number] = job;
    } else if (HasEnded(job.outcome)) {
      ++dropped_;
    }
  }
}

// Jobs without a root are left out: they may belong to another build, whose end this one must not wait for.
bool BuildObserver::HasRunningJobs() {
  const Lock lock(lock_);
  return std::any_of(jobs_.begin(), jobs_.end(), [](const auto& entry) {
    return entry.second.rootProcess != 0 && !HasEnded(entry.second.outcome);
  });
}

// One flush is not enough: its answer may come before the master has noticed the end of the last tools. So it is
// repeated until no job of this build runs.
void BuildObserver::Flush() {
  const u32 start = GetTickCount();
  do {
    if (isEnding_ || !connection_->Ask(OBSERVE_FLUSH)) return;
    flushed_.Wait(kFlushStepMs);
  } while (HasRunningJobs() && GetTickCount() - start < kFlushLimitMs);
}

void BuildObserver::Finish(BuildRecord& record) {
  Flush();
  isEnding_ = true;
  // The answer to this, or the end of the master, ends the thread.
  connection_->Ask(OBSERVE_SNAPSHOT);
  thread_->Wait(kNoLimit);
  thread_.Reset();
  connection_.reset();
  const Lock lock(lock_);
  record.slots = state_.slots;
  // The master counts the jobs that it could not tell this observer, and dropped_ those beyond kMostJobs.
  record.jobsDropped = state_.missed + dropped_;
  for (auto& [number, job] : jobs_) record.jobs.push_back(std::move(job));
  jobs_.clear();
}

}  // namespace kestrun::dorn
