#include "world.h"

#include <cxxabi.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "arena.h"

namespace kestrun::interleavings {

namespace {

constexpr std::size_t kRegionSize = 0x20000;
constexpr std::size_t kRegions = 24;
constexpr u64 kHorizonMs = 200000;
constexpr u64 kMostSteps = 50000;
// By how much a wait may run out early against the others: a machine is not slower than that.
constexpr u64 kEarlyMs = 1000;
// A stopped process goes on after this time at the earliest: longer than every limit of the code under test.
constexpr u64 kStopMs = 8000;

u64 Mix(u64 value) {
  value += 0x9E3779B97F4A7C15;
  value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
  value = (value ^ value >> 27) * 0x94D049BB133111EB;
  return value ^ value >> 31;
}

u64 HashText(const std::string& text) {
  return Mix(std::hash<std::string>()(text));
}

bool IsWaiting(const Thread& thread) {
  return thread.step.kind == Step::Kind::kWait;
}

}  // namespace

World& World::Get() {
  static World world;
  return world;
}

World::World() {
  void* const pool =
      mmap(nullptr, kRegions * kRegionSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pool == MAP_FAILED) std::abort();
  pool_ = static_cast<u8*>(pool);
  words_.resize(kRegions * kRegionSize / 2);
  regionHash_.resize(kRegions);
  written_.reserve(4096);
}

void World::Reset() {
  processes_.clear();
  threads_.clear();
  named_.clear();
  regions_.clear();
  for (const auto& [start, length] : written_) std::memset(start, 0, length);
  written_.clear();
  std::fill(regionHash_.begin(), regionHash_.end(), 0);
  time_ = steps_ = endedAt_ = 0;
  last_ = -1;
  servers_.clear();
  failure_.clear();
  arena::Reset();
}

void World::ForgetMemory() {
  Reset();
  memory_.clear();
  std::fill(words_.begin(), words_.end(), Word());
  hasNewShared_ = false;
}

int World::AddProcess(const std::string& name, bool canDie, std::function<void()> body) {
  processes_.push_back(std::make_unique<Process>());
  processes_.back()->name = name;
  processes_.back()->canDie = canDie;
  const int process = static_cast<int>(processes_.size()) - 1;
  AddThread(process, std::move(body));
  return process;
}

int World::AddThread(int process, std::function<void()> body) {
  if (stacks_.size() == threads_.size()) stacks_.push_back(static_cast<u8*>(std::malloc(Thread::kStackSize)));
  auto thread = std::make_unique<Thread>();
  thread->process = process;
  thread->body = std::move(body);
  thread->stack = stacks_[threads_.size()];
  thread->object = std::make_shared<Object>();
  thread->object->kind = ObjectKind::kThread;
  thread->object->isManual = true;
  threads_.push_back(std::move(thread));
  return static_cast<int>(threads_.size()) - 1;
}

// Fibers --------------------------------------------------------------------------------------------------------------

void World::Enter() {
  World& world = Get();
  world.Current().body();
  Step end;
  end.kind = Step::Kind::kEnd;
  world.Call(end);
  std::abort();
}

void World::Resume(int index) {
  Thread& thread = *threads_[index];
  auto* const exceptions = reinterpret_cast<void**>(abi::__cxa_get_globals());
  const std::array<void*, 2> own = {exceptions[0], exceptions[1]};
  std::copy(thread.exceptions.begin(), thread.exceptions.end(), exceptions);
  current_ = index;
  arena::Use(true);
  if (_setjmp(scheduler_) == 0) {
    if (thread.isStarted) _longjmp(thread.resume, 1);
    thread.isStarted = true;
    getcontext(&thread.context);
    thread.context.uc_stack.ss_sp = thread.stack;
    thread.context.uc_stack.ss_size = Thread::kStackSize;
    thread.context.uc_link = nullptr;
    makecontext(&thread.context, &World::Enter, 0);
    setcontext(&thread.context);
  }
  arena::Use(false);
  current_ = -1;
  std::copy(exceptions, exceptions + 2, threads_[index]->exceptions.begin());
  std::copy(own.begin(), own.end(), exceptions);
}

std::intptr_t World::Call(const Step& step) {
  Thread& thread = Current();
  thread.step = step;
  const bool hasDeadline = step.kind == Step::Kind::kWait && step.timeoutMs != 0 && step.timeoutMs != INFINITE;
  thread.step.deadline = hasDeadline ? time_ + step.timeoutMs : 0;
  thread.isTimedOut = false;
  if (_setjmp(thread.resume) == 0) _longjmp(scheduler_, 1);
  return thread.result;
}

void World::Park() {
  processes_[CurrentProcess()]->isDone = true;
  Step never;
  never.kind = Step::Kind::kWait;
  never.timeoutMs = INFINITE;
  for (;;) Call(never);
}

void World::See(u64 value) {
  Thread& thread = Current();
  thread.history = Mix(thread.history ^ value);
}

// Memory --------------------------------------------------------------------------------------------------------------

u8* World::MemoryFor(const std::string& name) {
  const auto [found, isNew] = memory_.try_emplace(name, pool_ + memory_.size() * kRegionSize);
  if (isNew && memory_.size() > kRegions) std::abort();
  u8* const memory = found->second;
  std::erase_if(written_, [memory](const auto& part) {
    if (part.first < memory || part.first >= memory + kRegionSize) return false;
    std::memset(part.first, 0, part.second);
    return true;
  });
  regionHash_[(memory - pool_) / kRegionSize] = 0;
  return memory;
}

bool World::IsSharedMemory(const void* address) const {
  return address >= pool_ && address < pool_ + kRegions * kRegionSize;
}

World::Word& World::WordAt(const void* address) {
  return words_[static_cast<std::size_t>(static_cast<const u8*>(address) - pool_) / 2];
}

// A word is a point as soon as two processes have used it and one of them has written it.
void World::BeforeAccess(const void* address, bool isWrite) {
  Word& word = WordAt(address);
  const u8 process = static_cast<u8>(1u << CurrentProcess());
  word.users |= process;
  word.isWritten = word.isWritten || isWrite;
  if (!word.isShared && word.isWritten && (word.users & (word.users - 1)) != 0) word.isShared = hasNewShared_ = true;
  if (!word.isShared) return;
  Step step;
  step.kind = Step::Kind::kMemory;
  step.address = address;
  Call(step);
}

void World::NoteRead(u64 value) {
  See(value);
}

void World::NoteWrite(const void* address, std::size_t length, u64 before, u64 after) {
  const arena::HostScope host;
  u8* const start = const_cast<u8*>(static_cast<const u8*>(address));
  const u64 place = static_cast<u64>(start - pool_) << 20;
  regionHash_[static_cast<std::size_t>(start - pool_) / kRegionSize] ^=
      Mix(place ^ Mix(before)) ^ Mix(place ^ Mix(after));
  written_.emplace_back(start, length);
}

void World::NoteCopy(void* target, const void* source, std::size_t length) {
  u64 content = length;
  for (std::size_t i = 0; i < length; ++i) content = Mix(content ^ static_cast<const u8*>(target)[i]);
  if (IsSharedMemory(source)) See(content);
  if (!IsSharedMemory(target)) return;
  const arena::HostScope host;
  u8* const start = static_cast<u8*>(target);
  u64& hash = regionHash_[static_cast<std::size_t>(start - pool_) / kRegionSize];
  hash ^= Mix(content ^ static_cast<u64>(start - pool_)) ^ Mix(hash);
  written_.emplace_back(start, length);
}

// Objects -------------------------------------------------------------------------------------------------------------

std::shared_ptr<Object> World::Find(const std::string& name) const {
  const auto found = named_.find(name);
  return found != named_.end() ? found->second : nullptr;
}

Object* World::Lookup(const Thread& thread, HANDLE handle) const {
  const auto& handles = processes_[thread.process]->handles;
  const auto found = handles.find(reinterpret_cast<std::intptr_t>(handle));
  return found != handles.end() ? found->second.get() : nullptr;
}

std::intptr_t World::OpenHandle(int process, const std::shared_ptr<Object>& object) {
  Process& owner = *processes_[process];
  owner.lastHandle += 4;
  owner.handles[owner.lastHandle] = object;
  ++object->handles;
  object->openers.insert(process);
  return owner.lastHandle;
}

void World::DropHandle(int process, std::intptr_t handle) {
  auto& handles = processes_[process]->handles;
  const auto found = handles.find(handle);
  if (found == handles.end()) return;
  const std::shared_ptr<Object> object = found->second;
  handles.erase(found);
  if (--object->handles == 0 && !object->name.empty()) named_.erase(object->name);
}

std::intptr_t World::OpenOrCreate(Thread& thread) {
  const Step& step = thread.step;
  const std::string name = step.name != nullptr ? step.name : "";
  std::shared_ptr<Object> object = name.empty() ? nullptr : Find(name);
  thread.lastError = object != nullptr && step.kind == Step::Kind::kCreate ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS;
  if (object == nullptr && step.kind == Step::Kind::kOpen) {
    thread.lastError = ERROR_FILE_NOT_FOUND;
    return 0;
  }
  if (object != nullptr && object->kind != step.object) {
    thread.lastError = ERROR_INVALID_HANDLE;
    return 0;
  }
  if (object == nullptr) {
    object = std::make_shared<Object>();
    object->kind = step.object;
    object->name = name;
    object->nameHash = HashText(name);
    object->isManual = step.isManual;
    object->count = step.initial;
    object->maximum = step.maximum;
    if (step.object == ObjectKind::kRegion) {
      object->memory = MemoryFor(name);
      regions_.push_back(object);
    }
    if (!name.empty()) named_[name] = object;
  }
  return OpenHandle(thread.process, object);
}

bool World::IsSignalled(int index, const Object& object) const {
  if (object.kind == ObjectKind::kMutex) return object.owner < 0 || object.owner == index;
  return object.count > 0;
}

std::intptr_t World::Wait(int index) {
  Thread& thread = *threads_[index];
  for (u32 i = 0; i < thread.step.count; ++i) {
    Object* const object = Lookup(thread, thread.step.handles[i]);
    if (object == nullptr) {
      Fail("a wait on a handle that is closed");
      thread.lastError = ERROR_INVALID_HANDLE;
      return static_cast<std::intptr_t>(WAIT_FAILED);
    }
    if (!IsSignalled(index, *object)) continue;
    const bool wasAbandoned = std::exchange(object->isAbandoned, false);
    if (object->kind == ObjectKind::kMutex) {
      object->owner = index;
      ++object->count;
    } else if (!object->isManual) {
      --object->count;
    }
    return static_cast<std::intptr_t>((wasAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i);
  }
  return WAIT_TIMEOUT;
}

std::intptr_t World::ReleaseMutexOf(int index) {
  Object* const mutex = Lookup(*threads_[index], threads_[index]->step.handles[0]);
  if (mutex == nullptr || mutex->owner != index) return FALSE;
  if (--mutex->count == 0) mutex->owner = -1;
  return TRUE;
}

std::intptr_t World::AddSemaphore(Thread& thread) {
  Object* const semaphore = Lookup(thread, thread.step.handles[0]);
  if (semaphore == nullptr || semaphore->count >= semaphore->maximum) return FALSE;
  ++semaphore->count;
  return TRUE;
}

std::intptr_t World::StartThread(Thread& thread) {
  const LPTHREAD_START_ROUTINE start = thread.step.start;
  void* const argument = thread.step.argument;
  const int index = AddThread(thread.process, [start, argument] { start(argument); });
  threads_[index]->isSuspended = true;
  return OpenHandle(threads_[index]->process, threads_[index]->object);
}

bool World::ResumeThreadOf(HANDLE handle) {
  Object* const object = Lookup(Current(), handle);
  for (const auto& thread : threads_) {
    if (thread->object.get() == object) thread->isSuspended = false;
  }
  return object != nullptr;
}

void World::EndThread(int index) {
  Thread& thread = *threads_[index];
  thread.isEnded = true;
  thread.object->count = 1;
  const bool isMain = std::none_of(threads_.begin(), threads_.begin() + index,
                                   [&](const auto& other) { return other->process == thread.process; });
  if (!isMain) return;
  DropMutexes(thread.process);
  DropHandles(thread.process);
  processes_[thread.process]->state = ProcessState::kGone;
}

std::intptr_t World::Perform(int index) {
  Thread& thread = *threads_[index];
  const Step& step = thread.step;
  Object* const object = Lookup(thread, step.handles[0]);
  switch (step.kind) {
    case Step::Kind::kOpen:
    case Step::Kind::kCreate:
      return OpenOrCreate(thread);
    case Step::Kind::kClose:
      DropHandle(thread.process, reinterpret_cast<std::intptr_t>(step.handles[0]));
      return TRUE;
    case Step::Kind::kSet:
    case Step::Kind::kReset:
      if (object != nullptr) object->count = step.kind == Step::Kind::kSet;
      return object != nullptr;
    case Step::Kind::kReleaseMutex:
      return ReleaseMutexOf(index);
    case Step::Kind::kReleaseSemaphore:
      return AddSemaphore(thread);
    case Step::Kind::kWait:
      return Wait(index);
    case Step::Kind::kCountHandles:
      return object != nullptr ? object->handles : 0;
    case Step::Kind::kStartThread:
      return StartThread(thread);
    default:
      return 0;
  }
}

// Steps ---------------------------------------------------------------------------------------------------------------

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

// A process that is killed or stopped does no more, which nothing sees as such; what is seen comes in steps of its own,
// or not at all. So it is enough to try that right behind each of its steps, and before its first one.
bool World::MayBeDisturbed(int process) const {
  const Process& one = *processes_[process];
  const bool isNext = !one.hasRun || (last_ >= 0 && threads_[last_]->process == process);
  return isNext && one.canDie && one.state == ProcessState::kAlive && !one.isDone;
}

// Nothing can run: the wait that runs out first does, or a stopped process goes on.
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
