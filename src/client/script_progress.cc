#include "client/script_progress.h"

#include <algorithm>
#include <utility>

#include "platform/terminal.h"
#include "protocol/job_label.h"

namespace kestrun {

namespace {

constexpr u32 kConnectMs = 2000;
constexpr u32 kReceiveMs = 1000;
constexpr u32 kFlushMs = 500;
constexpr std::size_t kMostNames = 5;
constexpr const char* kEraseLine = "\r\x1b[K";

bool HasStarted(const JobRecord& job) {
  return job.startedUs != JobRecord::kNone;
}

}  // namespace

bool ScriptProgress::HasTerminal() {
  return platform::EnableTerminalCodes(stderr);
}

ScriptProgress::ScriptProgress(std::vector<Job> jobs, std::FILE* out, std::size_t columns)
    : jobs_(std::move(jobs)), out_(out), columns_(columns) {}

ScriptProgress::~ScriptProgress() {
  isEnding_ = true;
  if (!thread_) return;
  // The thread sees isEnding_ after the next message; asking makes one come. The end of the master ends the thread as
  // well.
  observer_->Ask(OBSERVE_SNAPSHOT);
  thread_->Wait(kNoLimit);
}

void ScriptProgress::Observe(const std::string& masterId) {
  observer_ = JournalObserver::Connect(masterId, kConnectMs);
  if (!observer_ || !observer_->Ask(OBSERVE_FOLLOW)) return;
  rc_ptr<Thread> thread = new Thread("Progress");
  if (thread->Start(MakeDelegate(&ScriptProgress::Receive, this))) thread_ = thread;
}

void ScriptProgress::Receive() {
  JournalNews news;
  while (!isEnding_) {
    const JournalObserver::Outcome outcome = observer_->Receive(kReceiveMs, news);
    if (outcome == JournalObserver::Outcome::kGone || !news.refusal.empty()) return;
    if (outcome == JournalObserver::Outcome::kNews && !isEnding_) Take(news, GetCurrentProcessId());
    if (news.state.isLast != 0) flushed_.Signal();
  }
}

void ScriptProgress::Take(const JournalNews& news, u32 clientProcess) {
  const Lock lock(lock_);
  for (const JobRecord& job : news.jobs) {
    if (job.clientProcess != clientProcess) continue;
    numbers_.insert(job.number);
    if (HasStarted(job)) started_.insert(job.number);
    // A job that has ended stays erased; one that runs is entered again with its present label.
    running_.erase(job.number);
    if (job.outcome == JobOutcome::kRunning) running_[job.number] = GetLabel(job.text);
  }
  Draw();
}

void ScriptProgress::Hide() {
  const Lock lock(lock_);
  isHidden_ = true;
  Erase();
}

void ScriptProgress::Show() {
  const Lock lock(lock_);
  isHidden_ = false;
  Draw();
}

void ScriptProgress::OnResult(u32 line, i32 exitCode) {
  const Lock lock(lock_);
  ++done_;
  if (exitCode == 0 || line == 0) return Draw();
  const auto job = std::find_if(jobs_.begin(), jobs_.end(), [line](const Job& one) { return one.line == line; });
  if (job == jobs_.end()) return Draw();
  failures_.emplace_back(job - jobs_.begin(), exitCode);
  Erase();
  TellFailure(*job, exitCode);
  Draw();
}

// Asks for the records that the master has not sent yet, so that jobs that have started are known as such.
void ScriptProgress::Flush() {
  if (thread_ && observer_->Ask(OBSERVE_FLUSH)) flushed_.Wait(kFlushMs);
}

void ScriptProgress::Finish(bool listsFailures) {
  Hide();
  Flush();
  const Lock lock(lock_);
  if (listsFailures && !failures_.empty()) {
    Print("KESTRUN: " + std::to_string(failures_.size()) + " of " + std::to_string(jobs_.size()) + " jobs failed:");
    for (const auto& [index, code] : failures_) TellFailure(jobs_[index], code);
  }
  TellNeverStarted();
}

void ScriptProgress::TellFailure(const Job& job, i32 exitCode) {
  Print("KESTRUN: line " + std::to_string(job.line) + " failed with exit code " + std::to_string(exitCode) + ": " +
        job.command);
}

// Jobs reach the master in the order of the script, so the n-th number of the journal is the n-th job. A job with a
// result has started even if the master has not reported that, so the count is limited by the results that are missing.
void ScriptProgress::TellNeverStarted() {
  if (done_ == jobs_.size()) return;
  if (numbers_.empty()) return Print("KESTRUN: jobs without a result: " + std::to_string(jobs_.size() - done_));
  std::vector<std::size_t> never;
  auto number = numbers_.begin();
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    const bool isKnown = number != numbers_.end();
    if (!isKnown || !started_.contains(*number)) never.push_back(i);
    if (isKnown) ++number;
  }
  const std::size_t count = std::min(never.size(), jobs_.size() - done_);
  if (count == 0) return;
  std::string line = "KESTRUN: never started: ";
  for (std::size_t i = 0; i < std::min(count, kMostNames); ++i) {
    if (i > 0) line += ", ";
    line += jobs_[never[never.size() - count + i]].label;
  }
  if (count > kMostNames) line += " and " + std::to_string(count - kMostNames) + " more";
  Print(line);
}

std::string ScriptProgress::GetLine() const {
  std::string line = "[" + std::to_string(done_) + "/" + std::to_string(jobs_.size()) + "]";
  const char* separator = " running: ";
  // The news of a job's end may come behind its result.
  std::size_t left = jobs_.size() - std::min(done_, jobs_.size());
  for (auto job = running_.begin(); job != running_.end() && left > 0; ++job, --left) {
    line += separator + job->second;
    separator = ", ";
  }
  return FitLine(line, columns_);
}

// Called with the lock held, as all functions below.
void ScriptProgress::Draw() {
  if (isHidden_ || columns_ == 0) return;
  const std::string line = GetLine();
  if (isShown_ && line == shown_) return;
  std::fputs((kEraseLine + line).c_str(), out_);
  std::fflush(out_);
  isShown_ = true;
  shown_ = line;
}

void ScriptProgress::Erase() {
  if (!isShown_) return;
  std::fputs(kEraseLine, out_);
  std::fflush(out_);
  isShown_ = false;
}

void ScriptProgress::Print(const std::string& text) {
  // Cleaned of control characters and not cut, because users copy failed commands from here.
  std::fputs((FitLine(text, text.size()) + "\n").c_str(), out_);
  std::fflush(out_);
}

}  // namespace kestrun
