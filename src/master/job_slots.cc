#include "master/job_slots.h"

#include <algorithm>
#include <utility>

namespace kestrun {

namespace {

// The number of ancestors that are looked at; a build has some ten levels of processes.
constexpr std::size_t kMostAncestors = 256;

void RemoveOne(std::map<u64, u32>& counts, u64 key) {
  const auto found = counts.find(key);
  if (found != counts.end() && --found->second == 0) counts.erase(found);
}

}  // namespace

JobSlots::JobSlots(u32 count, ParentOf parentOf) : parentOf_(parentOf), free_(std::max(count, u32{1})) {}

JobSlots::Ticket JobSlots::NewTicket() {
  const std::lock_guard lock(lock_);
  return ++lastTicket_;
}

bool JobSlots::Ask(Ticket ticket, u32 processId, u64 inputPipe, u64 outputPipe) {
  Job asked;
  asked.processId = processId;
  asked.inputPipe = inputPipe;
  asked.outputPipe = outputPipe;
  return AskFor(ticket, asked, 0);
}

// `lowest` is an ancestor as well, and the lowest of all; 0 if there is none but those of the job's process.
bool JobSlots::AskFor(Ticket ticket, const Job& asked, u32 lowest) {
  {
    const std::lock_guard lock(lock_);
    Job& job = jobs_[ticket];
    job.processId = asked.processId;
    job.inputPipe = asked.inputPipe;
    job.outputPipe = asked.outputPipe;
    if (TryGrant(job, ticket)) return true;
  }
  // Without the lock, because it makes some system calls.
  std::vector<u32> ancestors = AncestorsOf(lowest != 0 ? lowest : asked.processId);
  if (lowest != 0) ancestors.insert(ancestors.begin(), lowest);
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(ticket);
  if (found == jobs_.end()) return false;  // it has left meanwhile
  found->second.ancestors = std::move(ancestors);
  // A second attempt: a slot may have become free meanwhile, and now the ancestors are known.
  if (TryGrant(found->second, ticket)) return true;
  waiting_.push_back(ticket);
  changed_.notify_all();
  return false;
}

void JobSlots::Leave(Ticket ticket) {
  std::vector<Ticket> granted;
  {
    const std::lock_guard lock(lock_);
    const bool areLendersNew = Remove(ticket);
    granted = GrantWaiting(areLendersNew);
  }
  Tell(granted);
}

bool JobSlots::AskAndWait(Ticket ticket, u32 clientProcess) {
  if (AskFor(ticket, {}, clientProcess)) return true;
  std::unique_lock lock(lock_);
  changed_.wait(lock, [&] { return isStopped_ || jobs_[ticket].isGranted; });
  if (jobs_[ticket].isGranted) return true;
  Remove(ticket);
  return false;
}

void JobSlots::SetProcess(Ticket ticket, u32 processId) {
  std::vector<Ticket> granted;
  {
    const std::lock_guard lock(lock_);
    const auto found = jobs_.find(ticket);
    if (found == jobs_.end()) return;
    found->second.processId = processId;
    jobOfProcess_[processId] = ticket;
    // A descendant may have asked before its ancestor was known here.
    granted = GrantWaiting(true);
  }
  Tell(granted);
}

void JobSlots::Stop() {
  const std::lock_guard lock(lock_);
  isStopped_ = true;
  changed_.notify_all();
}

bool JobSlots::IsGranted(Ticket ticket) const {
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(ticket);
  return found != jobs_.end() && found->second.isGranted;
}

i32 JobSlots::SlotOf(Ticket ticket) const {
  const std::lock_guard lock(lock_);
  const auto found = jobs_.find(ticket);
  return found != jobs_.end() ? found->second.slot : -1;
}

u32 JobSlots::CountRunning() const {
  const std::lock_guard lock(lock_);
  return static_cast<u32>(
      std::count_if(jobs_.begin(), jobs_.end(), [](const auto& entry) { return entry.second.isGranted; }));
}

u32 JobSlots::CountWaiting() const {
  const std::lock_guard lock(lock_);
  return static_cast<u32>(waiting_.size());
}

std::vector<u32> JobSlots::AncestorsOf(u32 processId) const {
  std::vector<u32> ancestors;
  while (processId != 0 && ancestors.size() < kMostAncestors) {
    processId = parentOf_(processId);
    // Parent ids of dead parents can form a circle where the system hands ids out again.
    if (processId == 0 || std::find(ancestors.begin(), ancestors.end(), processId) != ancestors.end()) break;
    ancestors.push_back(processId);
  }
  return ancestors;
}

bool JobSlots::IsBelow(u32 processId, u32 ancestor) const {
  std::vector<u32> processes = AncestorsOf(processId);
  processes.push_back(processId);
  const std::lock_guard lock(lock_);
  return std::any_of(processes.begin(), processes.end(), [&](u32 process) {
    return process != 0 && (process == ancestor || jobOfProcess_.contains(process));
  });
}

// With the lock.
bool JobSlots::TryGrant(Job& job, Ticket ticket) {
  job.lender = FindLender(job);
  if (job.lender != 0) {
    // Only a process that asks again finds its slot lent already; its new job then stands between the two.
    job.borrower = std::exchange(jobs_[job.lender].borrower, ticket);
    if (job.borrower != 0) jobs_[job.borrower].lender = ticket;
  } else if (free_ > 0) {
    --free_;
  } else if (SharesPipe(job)) {
    job.isBeyond = true;
  } else {
    return false;
  }
  Grant(job, ticket);
  return true;
}

void JobSlots::Grant(Job& job, Ticket ticket) {
  job.isGranted = true;
  job.slot = job.lender != 0 ? jobs_[job.lender].slot : TakeLowestSlot();
  ++generation_;
  if (job.inputPipe != 0) ++inputs_[job.inputPipe];
  if (job.outputPipe != 0) ++outputs_[job.outputPipe];
  if (job.processId != 0) jobOfProcess_[job.processId] = ticket;
}

i32 JobSlots::TakeLowestSlot() {
  i32 lowest = 0;
  for (auto used = usedSlots_.begin(); used != usedSlots_.end() && *used == lowest; ++used) ++lowest;
  usedSlots_.insert(lowest);
  return lowest;
}

// Compares outputs with inputs only: two jobs with the same output are not a pipeline, but a build whose output goes to
// one pipe.
bool JobSlots::SharesPipe(const Job& job) const {
  return outputs_.contains(job.inputPipe) || inputs_.contains(job.outputPipe);
}

bool JobSlots::AwaitWaiting() {
  std::unique_lock lock(lock_);
  changed_.wait(lock, [&] { return isStopped_ || !waiting_.empty(); });
  return !isStopped_;
}

std::vector<u32> JobSlots::GetRunning(u64& generation) const {
  const std::lock_guard lock(lock_);
  generation = generation_;
  std::vector<u32> processes;
  for (const auto& [process, ticket] : jobOfProcess_) processes.push_back(process);
  return processes;
}

bool JobSlots::GrantBeyond(u64 generation) {
  std::vector<Ticket> granted;
  {
    const std::lock_guard lock(lock_);
    if (generation != generation_ || waiting_.empty()) return false;
    const Ticket ticket = waiting_.front();
    waiting_.pop_front();
    jobs_[ticket].isBeyond = true;
    Grant(jobs_[ticket], ticket);
    granted = GrantWaiting(true);
    granted.push_back(ticket);
    changed_.notify_all();
  }
  Tell(granted);
  return true;
}

// The lender is the job's own process, if it has a slot and has become a client again, as in `kestrun kestrun cc`; or
// else the nearest ancestor with a slot. Only the nearest one is asked: if it lends its slot already, the jobs above it
// that wait for it lend to it.
JobSlots::Ticket JobSlots::FindLender(const Job& job) const {
  const auto own = jobOfProcess_.find(job.processId);
  if (own != jobOfProcess_.end()) return own->second;
  if (free_ > 0) return 0;
  for (const u32 ancestor : job.ancestors) {
    const auto found = jobOfProcess_.find(ancestor);
    if (found == jobOfProcess_.end()) continue;
    return jobs_.at(found->second).borrower == 0 ? found->second : 0;
  }
  return 0;
}

// With the lock. Takes the job out of the chain of lender and borrower. True if its lender may lend again.
bool JobSlots::Remove(Ticket ticket) {
  const auto found = jobs_.find(ticket);
  if (found == jobs_.end()) return false;
  const Job job = found->second;
  jobs_.erase(found);
  if (!job.isGranted) {
    std::erase(waiting_, ticket);
    return false;
  }
  // The id may be that of a later job's process by now.
  const auto process = jobOfProcess_.find(job.processId);
  if (process != jobOfProcess_.end() && process->second == ticket) {
    // In `kestrun kestrun cc` both jobs have this process.
    const bool isLendersToo = job.lender != 0 && jobs_[job.lender].processId == job.processId;
    if (isLendersToo) {
      process->second = job.lender;
    } else {
      jobOfProcess_.erase(process);
    }
  }
  ++generation_;
  RemoveOne(inputs_, job.inputPipe);
  RemoveOne(outputs_, job.outputPipe);
  if (job.borrower != 0) {
    jobs_[job.borrower].lender = job.lender;
    if (job.lender == 0) jobs_[job.borrower].isBeyond = job.isBeyond;
  }
  if (job.lender != 0) jobs_[job.lender].borrower = job.borrower;
  if (job.borrower == 0 && job.lender == 0) {
    usedSlots_.erase(job.slot);
    if (!job.isBeyond) ++free_;
  }
  return job.lender != 0;
}

// With the lock. Passes over jobs that can't be granted, so that a job behind them whose ancestor lends is not delayed.
// Lenders are only asked if one of them may answer differently now: otherwise each end of a job would cost a search
// through thousands of waiting ones.
std::vector<JobSlots::Ticket> JobSlots::GrantWaiting(bool areLendersNew) {
  std::vector<Ticket> granted;
  for (auto next = waiting_.begin(); next != waiting_.end() && (free_ > 0 || areLendersNew);) {
    if (TryGrant(jobs_[*next], *next)) {
      granted.push_back(*next);
      // The job at the other end of its pipe may be nearer the front, so the search starts again.
      const Job& job = jobs_[*next];
      waiting_.erase(next);
      if (job.inputPipe != 0 || job.outputPipe != 0) areLendersNew = true;
      next = waiting_.begin();
    } else {
      ++next;
    }
  }
  if (!granted.empty()) changed_.notify_all();
  return granted;
}

void JobSlots::Tell(const std::vector<Ticket>& granted) {
  if (!listener_) return;
  for (const Ticket ticket : granted) listener_(ticket);
}

}  // namespace kestrun
