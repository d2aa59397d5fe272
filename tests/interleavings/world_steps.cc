// Which steps there are, which of them can come next, and what tells two states apart.
#include <algorithm>

#include "world.h"

namespace kestrun::interleavings {

namespace {

constexpr u64 kHorizonMs = 200000;
constexpr u64 kMostSteps = 50000;
// By how much a wait may run out early against the others: a machine is not slower than that.
constexpr u64 kEarlyMs = 1000;
// A stopped process goes on after this time at the earliest: longer than every limit of the code under test.
constexpr u64 kStopMs = 8000;

bool IsWaiting(const Thread& thread) {
  return thread.step.kind == Step::Kind::kWait;
}

}  // namespace

bool World::IsPoint(int index) const {
  const Thread& thread = *threads_[index];
  const Step& step = thread.step;
  const Object* const object = Lookup(thread, step.handles[0]);
  switch (step.kind) {
    case Step::Kind::kBegin:
    case Step::Kind::kStartThread:
      return false;
    case Step::Kind::kOpen:
    case Step::Kind::kCreate:
      return step.name != nullptr;
    case Step::Kind::kClose:
      return object != nullptr && !object->name.empty();
    case Step::Kind::kReleaseMutex:
      return object == nullptr || object->count <= 1;
    case Step::Kind::kWait:
      return step.count != 1 || object == nullptr || object->kind != ObjectKind::kMutex || object->owner != index;
    default:
      return true;
  }
}

bool World::CanRun(int index) const {
  const Thread& thread = *threads_[index];
  if (thread.isEnded || thread.isSuspended) return false;
  if (processes_[thread.process]->state != ProcessState::kAlive) return false;
  if (!IsWaiting(thread)) return true;
  if (thread.isTimedOut || (thread.step.timeoutMs == 0 && thread.step.count > 0)) return true;
  for (u32 i = 0; i < thread.step.count; ++i) {
    const Object* const object = Lookup(thread, thread.step.handles[i]);
    if (object == nullptr || IsSignalled(index, *object)) return true;
  }
  return false;
}

void World::RunOneStep(int index) {
  Thread& thread = *threads_[index];
  ++steps_;
  if (IsPoint(index)) processes_[thread.process]->hasRun = true;
  if (thread.step.kind == Step::Kind::kEnd) {
    EndThread(index);
    return;
  }
  const std::intptr_t result = Perform(index);
  if (thread.step.kind != Step::Kind::kMemory) {
    thread.history = Mix(thread.history ^ static_cast<u64>(result) ^ static_cast<u64>(thread.step.kind) << 40);
  }
  thread.result = result;
  Resume(index);
}

void World::Settle() {
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    const int index = static_cast<int>(i);
    while (CanRun(index) && !IsPoint(index)) RunOneStep(index);
  }
}

void World::RunUntilIdle(int process) {
  Settle();
  for (u32 i = 0; i < kMostSteps && !IsIdle(process); ++i) {
    bool hasRun = false;
    for (std::size_t k = 0; k < threads_.size(); ++k) {
      if (threads_[k]->process != process || !CanRun(static_cast<int>(k))) continue;
      RunOneStep(static_cast<int>(k));
      hasRun = true;
      Settle();
    }
    if (!hasRun) break;
  }
}

bool World::IsIdle(int process) const {
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    const Thread& thread = *threads_[i];
    if (thread.process != process || thread.isEnded) continue;
    if (CanRun(static_cast<int>(i)) || !IsWaiting(thread) || !thread.isIdle) return false;
  }
  return true;
}

// Choices -------------------------------------------------------------------------------------------------------------

bool World::IsDone(int process) const {
  const Process& one = *processes_[process];
  return servers_.contains(process) || one.isDone || one.state == ProcessState::kGone;
}

bool World::AreAllDone() const {
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    if (!IsDone(static_cast<int>(i))) return false;
  }
  return true;
}

void World::GetChoices(const Budget& budget, std::vector<Choice>& out) {
  out.clear();
  if (!failure_.empty()) return;
  const bool isLast = AreAllDone();
  if (isLast && endedAt_ == 0) endedAt_ = time_ + 1;
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    if (CanRun(static_cast<int>(i))) out.push_back({Choice::Kind::kRun, static_cast<u8>(i)});
  }
  AddDrops(out);
  if (budget.switches == 0) std::erase_if(out, [this](const Choice& choice) { return IsSwitch(choice); });
  const bool isForced = out.empty();
  if (isForced) AddDue(out);
  if (!isLast) AddDisturbances(budget, isForced, out);
  if (out.empty() && !isLast) Fail("some process can't go on for ever");
  if (time_ > kHorizonMs || steps_ > kMostSteps) Fail("there is no end");
}

void World::AddDrops(std::vector<Choice>& out) const {
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    const Process& process = *processes_[i];
    if (process.state != ProcessState::kDying) continue;
    if (process.holdsMutexes) out.push_back({Choice::Kind::kDropMutexes, static_cast<u8>(i)});
    if (process.hasHandles) out.push_back({Choice::Kind::kDropHandles, static_cast<u8>(i)});
  }
}

// A kill or a stop is not visible to other threads by itself: its effects come in steps of their own, or not at all. So
// it is enough to try one directly after each step of the process, and before its first step.
bool World::MayBeDisturbed(int process) const {
  const Process& one = *processes_[process];
  const bool isNext = !one.hasRun || (last_ >= 0 && threads_[last_]->process == process);
  return isNext && one.canDie && one.state == ProcessState::kAlive && !one.isDone;
}

// When no thread can run, the wait that runs out first does so, or a stopped process goes on.
void World::AddDue(std::vector<Choice>& out) {
  int first = -1;
  u64 deadline = endedAt_ != 0 ? endedAt_ + afterMs_ : ~u64{0};
  bool isStop = false;
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    const Thread& thread = *threads_[i];
    const bool counts = !thread.isEnded && processes_[thread.process]->state == ProcessState::kAlive;
    if (!counts || !IsWaiting(thread) || thread.step.deadline == 0 || thread.step.deadline >= deadline) continue;
    deadline = thread.step.deadline;
    first = static_cast<int>(i);
  }
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    const Process& process = *processes_[i];
    if (process.state != ProcessState::kStopped || process.stoppedAt + kStopMs >= deadline) continue;
    deadline = process.stoppedAt + kStopMs;
    first = static_cast<int>(i);
    isStop = true;
  }
  if (first >= 0) out.push_back({isStop ? Choice::Kind::kContinue : Choice::Kind::kTimeOut, static_cast<u8>(first)});
}

void World::AddDisturbances(const Budget& budget, bool isForced, std::vector<Choice>& out) const {
  for (std::size_t i = 0; i < processes_.size(); ++i) {
    if (!MayBeDisturbed(static_cast<int>(i))) continue;
    if (budget.kills > 0) out.push_back({Choice::Kind::kKill, static_cast<u8>(i)});
    if (budget.stops > 0) out.push_back({Choice::Kind::kStop, static_cast<u8>(i)});
  }
  for (std::size_t i = 0; i < threads_.size() && budget.early > 0 && !isForced; ++i) {
    const Thread& thread = *threads_[i];
    if (processes_[thread.process]->state != ProcessState::kAlive || thread.isEnded) continue;
    const bool isNear = thread.step.deadline != 0 && thread.step.deadline <= time_ + kEarlyMs;
    if (!IsWaiting(thread) || !isNear || CanRun(static_cast<int>(i)) || thread.isIdle) continue;
    out.push_back({Choice::Kind::kTimeOut, static_cast<u8>(i)});
  }
}

void World::TimeOut(int index) {
  time_ = std::max(time_, threads_[index]->step.deadline);
  for (const auto& thread : threads_) {
    const bool isDue = IsWaiting(*thread) && thread->step.deadline != 0 && thread->step.deadline <= time_;
    if (isDue) thread->isTimedOut = true;
  }
}

void World::Do(const Choice& choice, Budget& budget) {
  Process* const process = choice.kind != Choice::Kind::kRun && choice.kind != Choice::Kind::kTimeOut
                               ? processes_[choice.index].get()
                               : nullptr;
  switch (choice.kind) {
    case Choice::Kind::kRun:
      RunOneStep(choice.index);
      break;
    case Choice::Kind::kKill:
      --budget.kills;
      process->state = ProcessState::kDying;
      process->wasKilled = true;
      process->holdsMutexes = process->hasHandles = true;
      break;
    case Choice::Kind::kStop:
      --budget.stops;
      process->state = ProcessState::kStopped;
      process->stoppedAt = time_;
      process->wasStopped = true;
      break;
    case Choice::Kind::kContinue:
      time_ = std::max(time_, process->stoppedAt + kStopMs);
      process->state = ProcessState::kAlive;
      break;
    case Choice::Kind::kDropMutexes:
      DropMutexes(choice.index);
      break;
    case Choice::Kind::kDropHandles:
      DropHandles(choice.index);
      break;
    case Choice::Kind::kTimeOut:
      TimeOut(choice.index);
      break;
  }
  if (process != nullptr && process->state == ProcessState::kDying && !process->holdsMutexes && !process->hasHandles) {
    process->state = ProcessState::kGone;
  }
  Settle();
}

bool World::IsSwitch(const Choice& choice) const {
  const bool isStep = choice.kind == Choice::Kind::kRun || choice.kind == Choice::Kind::kDropMutexes ||
                      choice.kind == Choice::Kind::kDropHandles;
  const bool isSame = choice.kind == Choice::Kind::kRun && last_ == choice.index;
  return isStep && !isSame && last_ >= 0 && CanRun(last_);
}

void World::Spend(const std::vector<Choice>& choices, const Choice& choice, Budget& budget) {
  const auto isStep = [](const Choice& other) {
    return other.kind == Choice::Kind::kRun || other.kind == Choice::Kind::kDropMutexes ||
           other.kind == Choice::Kind::kDropHandles;
  };
  const bool couldRun = std::any_of(choices.begin(), choices.end(), isStep);
  if (choice.kind == Choice::Kind::kTimeOut && couldRun) --budget.early;
  if (IsSwitch(choice) && budget.switches != Budget::kUnlimited) --budget.switches;
  if (isStep(choice)) last_ = choice.kind == Choice::Kind::kRun ? choice.index : -1;
}

void World::DropMutexes(int process) {
  processes_[process]->holdsMutexes = false;
  for (const auto& [handle, object] : processes_[process]->handles) {
    if (object->kind != ObjectKind::kMutex || object->owner < 0) continue;
    if (threads_[object->owner]->process != process) continue;
    object->owner = -1;
    object->count = 0;
    object->isAbandoned = true;
  }
}

// A handle that goes takes the name along, but not the lock that its process holds: that goes with the mutexes.
void World::DropHandles(int process) {
  processes_[process]->hasHandles = false;
  if (processes_[process]->holdsMutexes) DropMutexes(process);
  while (!processes_[process]->handles.empty()) DropHandle(process, processes_[process]->handles.begin()->first);
}

u64 World::Hash(const Budget& budget) const {
  u64 hash = Mix(time_ ^ Mix(budget.kills + 16 * budget.stops + 256 * budget.early));
  if (budget.switches != Budget::kUnlimited) hash = Mix(hash ^ budget.switches << 8 ^ static_cast<u64>(last_));
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    const Thread& thread = *threads_[i];
    const u64 flags = thread.isTimedOut | thread.isEnded << 1 | thread.isSuspended << 2;
    hash = Mix(hash ^ thread.history ^ flags << 60 ^ Mix(thread.step.deadline));
  }
  for (const auto& process : processes_) {
    hash = Mix(hash ^ static_cast<u64>(process->state) << 8 ^ (process->holdsMutexes | process->hasHandles << 1));
    for (const auto& [handle, object] : process->handles) {
      const u64 state = static_cast<u64>(object->count) << 16 ^ static_cast<u64>(object->owner + 1) << 8 ^
                        static_cast<u64>(object->isAbandoned) << 40 ^ static_cast<u64>(object->handles) << 48;
      hash = Mix(hash ^ static_cast<u64>(handle) ^ Mix(state) ^ object->nameHash);
    }
  }
  for (const u64 region : regionHash_) hash = Mix(hash ^ region);
  return hash;
}

std::string World::Describe(const Choice& choice) const {
  static const char* const kWhat[] = {"",        "is killed",         "is stopped",
                                      "goes on", "loses its mutexes", "loses its handles"};
  static const char* const kSteps[] = {"begins",  "opens",           "creates", "closes", "sets",
                                       "resets",  "releases",        "returns", "waits",  "counts handles",
                                       "touches", "starts a thread", "ends"};
  if (choice.kind != Choice::Kind::kRun && choice.kind != Choice::Kind::kTimeOut) {
    return processes_[choice.index]->name + " " + kWhat[static_cast<int>(choice.kind)];
  }
  const Thread& thread = *threads_[choice.index];
  const Step& step = thread.step;
  const Object* const object = Lookup(thread, step.handles[0]);
  std::string text = std::to_string(time_) + " ms: " + processes_[thread.process]->name + " ";
  text += choice.kind == Choice::Kind::kTimeOut ? "waits in vain for" : kSteps[static_cast<int>(step.kind)];
  text += step.name != nullptr ? std::string(" ") + step.name : object != nullptr ? " " + object->name : "";
  for (const auto& [name, memory] : memory_) {
    const u8* const address = static_cast<const u8*>(step.address);
    if (step.kind != Step::Kind::kMemory || address < memory || address >= memory + kRegionSize) continue;
    text += " " + name + "+" + std::to_string(address - memory);
  }
  return text;
}

}  // namespace kestrun::interleavings
