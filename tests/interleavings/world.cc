#include "world.h"

#include <cxxabi.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "arena.h"

namespace kestrun::interleavings {

namespace {

constexpr std::size_t kRegionSize = World::kRegionSize;
constexpr std::size_t kRegions = 24;

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

void World::Fail(const char* what) {
  const arena::HostScope host;
  if (failure_.empty()) failure_ = what;
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

}  // namespace kestrun::interleavings
