#include "master/job_journal.h"

#include <algorithm>
#include <utility>

#include "platform/win32.h"

namespace kestrun {

namespace {

// The number of ancestors that are looked at. It ends the search where process ids that were used again form a circle.
constexpr int kMostLevels = 64;

std::size_t SizeOf(const JobRecord& record) {
  const JobText& text = record.text;
  return sizeof record + text.project.size() + text.name.size() + text.tool.size() + text.command.size() +
         text.folder.size() + record.outputHead.size();
}

}  // namespace

JobText ToJobText(const SlotTexts& texts) {
  JobText text;
  text.project = texts.project;
  text.name = texts.name;
  text.folder = texts.folder;
  text.tool = texts.tool;
  text.command = text.tool;
  if (!texts.arguments.empty()) text.command += ' ';
  text.command += texts.arguments;
  return text;
}

JobJournal::JobJournal(u32 slots, ParentOf parentOf, std::size_t mostEnded)
    : slots_(slots),
      parentOf_(parentOf),
      mostEnded_(mostEnded),
      startedUs_(SteadyMicroseconds()),
      startedUnixUs_(UnixMicroseconds()) {}

u64 JobJournal::Add(const rc_ptr<JobDescription>& description, u32 clientProcess) {
  const std::int64_t now = SteadyMicroseconds();
  std::unique_lock lock(lock_);
  const u64 number = ++lastNumber_;
  Entry& entry = jobs_[number];
  entry.record.number = number;
  entry.record.clientProcess = clientProcess;
  entry.record.queuedUs = now;
  entry.description = description;
  ++waiting_;
  Touch(entry);
  const bool endsRest = std::exchange(isResting_, false);
  // The listener takes a lock of its own, and this lock is innermost.
  lock.unlock();
  if (endsRest) listener_();
  return number;
}

void JobJournal::SetListener(std::function<void()> listener) {
  const std::lock_guard lock(lock_);
  listener_ = std::move(listener);
  isResting_ = false;
}

bool JobJournal::Rest() {
  const std::lock_guard lock(lock_);
  isResting_ = listener_ && running_ == 0 && waiting_ == 0 &&
               std::all_of(followers_.begin(), followers_.end(),
                           [this](const auto& follower) { return follower.second.position == lastChange_; });
  return isResting_;
}

void JobJournal::Start(u64 number, i32 slot, u32 process, std::int64_t startedUs) {
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(number);
  if (found == jobs_.end() || found->second.record.outcome != JobOutcome::kWaiting) return;
  Entry& entry = found->second;
  entry.record.startedUs = startedUs;
  entry.record.slot = slot;
  entry.record.outcome = JobOutcome::kRunning;
  entry.toolProcess = process != 0 ? process : entry.record.clientProcess;
  if (entry.toolProcess != 0) jobOfProcess_[entry.toolProcess] = number;
  --waiting_;
  ++running_;
  Touch(entry);
}

void JobJournal::Finish(u64 number, End end) {
  if (end.endedUs < 0) end.endedUs = SteadyMicroseconds();
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(number);
  if (found == jobs_.end() || HasEnded(found->second.record.outcome)) return;
  Entry& entry = found->second;
  JobRecord& record = entry.record;
  --(record.outcome == JobOutcome::kRunning ? running_ : waiting_);
  // The process may belong to a later job by now: a tool that is run by another one in its own process, or an id that
  // was used again.
  const auto process = jobOfProcess_.find(entry.toolProcess);
  if (process != jobOfProcess_.end() && process->second == number) jobOfProcess_.erase(process);
  record.outcome = end.outcome;
  Count(record);
  if (followers_.empty()) return Forget(number);
  record.endedUs = end.endedUs;
  record.hasExitCode = end.hasExitCode;
  record.exitCode = end.exitCode;
  record.signal = end.signal;
  if (end.cpuUs != JobRecord::kNone) record.cpuUs = end.cpuUs;
  record.peakMemoryBytes = std::max(record.peakMemoryBytes, end.peakMemoryBytes);
  record.outputBytes = end.outputBytes;
  record.outputHead = std::move(end.outputHead);
  record.text = entry.description->GetText();
  entry.description.Reset();
  Touch(entry);
  ended_[entry.change] = number;
  endedBytes_ += SizeOf(record);
  while (ended_.size() > mostEnded_ || endedBytes_ > kMostEndedBytes) DropOldest();
}

void JobJournal::Count(const JobRecord& record) {
  ++done_;
  if (IsFailure(record.outcome)) ++failed_;
  if (record.outcome == JobOutcome::kUnknown) ++unknown_;
}

// With the lock. Without followers the changes are not numbered: Join numbers all jobs that there are.
void JobJournal::Touch(Entry& entry) {
  if (followers_.empty()) return;
  if (entry.change != 0) changes_.erase(entry.change);
  entry.change = ++lastChange_;
  changes_[entry.change] = entry.record.number;
}

void JobJournal::Forget(u64 number) {
  const auto found = jobs_.find(number);
  if (found->second.change != 0) changes_.erase(found->second.change);
  jobs_.erase(found);
}

// With the lock.
void JobJournal::DropOldest() {
  // Of DropRead's records no follower has missed any, since all positions are behind them.
  const auto [change, number] = *ended_.begin();
  for (auto& [id, follower] : followers_) {
    if (follower.position < change) ++follower.missed;
  }
  endedBytes_ -= SizeOf(jobs_[number].record);
  ended_.erase(ended_.begin());
  Forget(number);
}

// With the lock. Drops the ended jobs that all followers have received.
void JobJournal::DropRead() {
  u64 read = lastChange_;
  for (const auto& [id, follower] : followers_) read = std::min(read, follower.position);
  while (!ended_.empty() && ended_.begin()->first <= read) DropOldest();
}

void JobJournal::FindParent(u64 number) {
  if (!IsObserved()) return;
  u32 client = 0;
  {
    const std::lock_guard lock(lock_);
    const auto found = jobs_.find(number);
    if (found == jobs_.end()) return;
    client = found->second.record.clientProcess;
    if (client != 0 && client == lastClient_) return SetParent(found->second, lastAbove_);
  }
  // Without the lock, because it makes system calls; the job may have ended and been dropped when it is back.
  const Above above = LookAbove(client);
  const std::lock_guard lock(lock_);
  lastClient_ = client;
  lastAbove_ = above;
  const auto found = jobs_.find(number);
  if (found != jobs_.end()) SetParent(found->second, above);
}

// With the lock.
void JobJournal::SetParent(Entry& entry, const Above& above) {
  if (above.parent == 0 && !above.roots) return;
  entry.record.parent = above.parent;
  entry.roots = above.roots;
  // A job that has ended must keep the number of its last change: it is the key in ended_.
  if (!HasEnded(entry.record.outcome)) Touch(entry);
}

JobJournal::Above JobJournal::LookAbove(u32 process) const {
  Above above;
  for (int level = 0; process != 0 && level < kMostLevels; ++level) {
    process = parentOf_(process);
    if (process == 0 || FindAbove(process, above)) break;
  }
  return above;
}

bool JobJournal::FindAbove(u32 process, Above& above) const {
  const std::lock_guard lock(lock_);
  const auto job = jobOfProcess_.find(process);
  if (job != jobOfProcess_.end()) {
    above.parent = job->second;
    const auto record = jobs_.find(above.parent);
    if (record != jobs_.end()) above.roots = record->second.roots;
    return true;
  }
  for (const auto& [id, follower] : followers_) {
    if (follower.rootProcess != process) continue;
    above.roots = follower.roots;
    return true;
  }
  return false;
}

// Jobs that are here already do not get the new root: ancestors are looked for once for each job. The observer that
// belongs to a build joins before the build's first job, so it loses none.
JobJournal::Observer JobJournal::Join(u32 rootProcess) {
  std::vector<u32> roots{rootProcess};
  if (const Roots above = LookAbove(rootProcess).roots) roots.insert(roots.end(), above->begin(), above->end());
  const std::lock_guard lock(lock_);
  followers_[++lastObserver_] = {0, rootProcess, std::make_shared<const std::vector<u32>>(std::move(roots)), 0};
  // What was found before does not have the new root.
  lastClient_ = 0;
  isObserved_ = true;
  const u64 before = lastChange_;
  for (auto& [number, entry] : jobs_) {
    if (!HasEnded(entry.record.outcome)) Touch(entry);
  }
  followers_[lastObserver_].position = before;
  return lastObserver_;
}

void JobJournal::Leave(Observer observer) {
  const std::lock_guard lock(lock_);
  followers_.erase(observer);
  DropRead();
  if (!followers_.empty()) return;
  isObserved_ = false;
  for (auto& [number, entry] : jobs_) entry.change = 0;
  changes_.clear();
}

std::string JobJournal::Take(Observer observer, std::size_t mostBytes, u64& latest) {
  const std::lock_guard lock(lock_);
  std::string bytes;
  const auto found = followers_.find(observer);
  if (found == followers_.end()) return bytes;
  u64& position = found->second.position;
  for (auto next = changes_.upper_bound(position); next != changes_.end() && bytes.size() < mostBytes; ++next) {
    EncodeRecord(RecordOf(jobs_[next->second], found->second.rootProcess), bytes);
    position = next->first;
  }
  latest = position;
  DropRead();
  return bytes;
}

u64 JobJournal::GetLatest() const {
  const std::lock_guard lock(lock_);
  return lastChange_;
}

// The record as it is sent to a follower with this root. Its rootProcess is the follower's if the job is below that,
// and otherwise the nearest of the job's roots.
JobRecord JobJournal::RecordOf(const Entry& entry, u32 rootProcess) {
  JobRecord record = entry.record;
  if (entry.roots) {
    const bool isBelow = std::find(entry.roots->begin(), entry.roots->end(), rootProcess) != entry.roots->end();
    record.rootProcess = isBelow ? rootProcess : entry.roots->front();
  }
  if (entry.description) record.text = entry.description->GetText();
  return record;
}

std::string JobJournal::Snapshot(std::size_t mostBytes) const {
  const std::lock_guard lock(lock_);
  std::string bytes;
  // Jobs start about in the order of their numbers, so the search for those that run ends early.
  for (const auto& [wanted, count] :
       {std::pair(JobOutcome::kRunning, running_), std::pair(JobOutcome::kWaiting, waiting_)}) {
    u64 left = count;
    for (auto next = jobs_.begin(); next != jobs_.end() && left > 0 && bytes.size() < mostBytes; ++next) {
      if (next->second.record.outcome != wanted) continue;
      EncodeRecord(RecordOf(next->second, 0), bytes);
      --left;
    }
  }
  return bytes;
}

JournalState JobJournal::GetState(Observer observer) const {
  JournalState state;
  state.nowUs = SteadyMicroseconds();
  state.startedUs = startedUs_;
  state.startedUnixUs = startedUnixUs_;
  state.slots = slots_;
  state.masterProcess = GetCurrentProcessId();
  const std::lock_guard lock(lock_);
  state.done = done_;
  state.failed = failed_;
  state.unknown = unknown_;
  state.running = running_;
  state.waiting = waiting_;
  const auto follower = followers_.find(observer);
  if (follower != followers_.end()) state.missed = follower->second.missed;
  return state;
}

std::vector<std::pair<u64, u32>> JobJournal::GetRunning() const {
  const std::lock_guard lock(lock_);
  std::vector<std::pair<u64, u32>> running;
  for (const auto& [process, number] : jobOfProcess_) running.emplace_back(number, process);
  return running;
}

void JobJournal::AddSample(u64 number, const platform::ProcessUsage& usage) {
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(number);
  if (found == jobs_.end() || HasEnded(found->second.record.outcome)) return;
  // Samples only count upward: a sample misses the children that ended since the one before. 0 means not known.
  const auto take = [](std::int64_t& known, std::uint64_t sampled) {
    if (sampled != 0) known = std::max(known, static_cast<std::int64_t>(sampled));
  };
  take(found->second.record.peakMemoryBytes, usage.peakMemoryBytes);
  take(found->second.record.cpuUs, usage.cpuUs);
}

}  // namespace kestrun
