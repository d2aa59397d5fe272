// A system made of nothing but a scheduler: processes that run the product's own code, one step at a time, in an order
// that an Explorer chooses.
//
// The code under test is the code that ships, built a second time: its calls of the system end in win32_calls.cc, and
// its accesses of shared memory in memory_hooks.cc (the compiler puts a call before each of them). Each such call is a
// point: the thread, a fiber of this process, stops there until the explorer lets it do this one step. So every order
// of the steps of all processes can be tried, with a process killed or stopped between any two of them.
//
// The objects behave as the comments of platform/api/sync_api.h have it. A killed process stops at once; the mutexes
// that it held and the handles that it had open go in two steps of their own, in either order, as a system does it
// after the process's last step. Time stands still while any thread can run, unless the explorer decides that a wait
// runs out before that (a slow machine).
//
// Threads: one, which runs the explorer and all fibers.
#ifndef KESTRUN_TESTS_INTERLEAVINGS_WORLD_H_
#define KESTRUN_TESTS_INTERLEAVINGS_WORLD_H_

#include <array>
#include <csetjmp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <ucontext.h>

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun::interleavings {

enum class ObjectKind : u8 { kEvent, kMutex, kSemaphore, kRegion, kThread };

struct Object {
  ObjectKind kind = ObjectKind::kEvent;
  std::string name;  // empty: private to its process
  bool isManual = false;
  bool isAbandoned = false;
  i32 count = 0;  // event: set; semaphore: free; mutex: how often its owner has it; thread: ended
  i32 maximum = 0;
  int owner = -1;  // mutex: the thread
  u8* memory = nullptr;
  int handles = 0;
  u64 nameHash = 0;
  std::set<int> openers;  // processes that have had it open at any time
};

// What a thread is about to do.
struct Step {
  enum class Kind : u8 {
    kBegin,
    kOpen,
    kCreate,
    kClose,
    kSet,
    kReset,
    kReleaseMutex,
    kReleaseSemaphore,
    kWait,
    kCountHandles,
    kMemory,
    kStartThread,
    kEnd
  };
  Kind kind = Kind::kBegin;
  ObjectKind object = ObjectKind::kEvent;
  const char* name = nullptr;
  HANDLE handles[3] = {};
  u32 count = 0;
  u32 timeoutMs = 0;
  u64 deadline = 0;  // virtual milliseconds; 0 for none
  bool isManual = false;
  i32 initial = 0;
  i32 maximum = 0;
  const void* address = nullptr;
  LPTHREAD_START_ROUTINE start = nullptr;
  void* argument = nullptr;
};

enum class ProcessState : u8 { kAlive, kStopped, kDying, kGone };

struct Process {
  std::string name;
  ProcessState state = ProcessState::kAlive;
  bool canDie = false;
  bool hasRun = false;
  bool wasStopped = false;
  bool wasKilled = false;
  bool isDone = false;        // has said that it does nothing more
  bool holdsMutexes = false;  // of a dying one: they are still to go
  bool hasHandles = false;    // likewise
  u64 stoppedAt = 0;
  std::map<std::intptr_t, std::shared_ptr<Object>> handles;
  std::intptr_t lastHandle = 0;
};

struct Thread {
  static constexpr std::size_t kStackSize = 256 * 1024;

  int process = 0;
  std::function<void()> body;
  std::shared_ptr<Object> object;  // what a handle of the thread stands for
  bool isStarted = false;          // has a frame on its stack
  bool isSuspended = false;
  bool isEnded = false;
  bool isTimedOut = false;  // the wait that it is in
  bool isIdle = false;      // says of itself that it waits for work
  Step step;
  std::intptr_t result = 0;
  u64 history = 0;  // all that it has seen so far, of which everything that it does is a function
  u64 counter = 0;
  DWORD lastError = 0;
  void* slots[4] = {};
  u8* stack = nullptr;
  ucontext_t context;
  jmp_buf resume;
  std::array<void*, 2> exceptions{};  // of the C++ run time, which keeps them for each real thread
};

// Spreads the bits of a value, for hashes.
inline u64 Mix(u64 value) {
  value += 0x9E3779B97F4A7C15;
  value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
  value = (value ^ value >> 27) * 0x94D049BB133111EB;
  return value ^ value >> 31;
}

class World {
 public:
  // The size of every region of shared memory; the product makes none that is larger.
  static constexpr std::size_t kRegionSize = 0x20000;

  static World& Get();

  // Forgets everything except where the memory of each name lies, and which of its words are points.
  void Reset();
  void ForgetMemory();
  // `canDie`: the explorer may kill and stop it.
  int AddProcess(const std::string& name, bool canDie, std::function<void()> body);
  // Runs one process alone until it waits for work.
  void RunUntilIdle(int process);
  // The scenario is over once all processes but `servers` are done and this much time has passed since.
  void SetEnd(std::set<int> servers, u64 afterMs) {
    servers_ = std::move(servers);
    afterMs_ = afterMs;
  }

  // For the explorer -------------------------------------------------------------------------------------------------
  struct Choice {
    enum class Kind : u8 { kRun, kKill, kStop, kContinue, kDropMutexes, kDropHandles, kTimeOut };
    Kind kind;
    u8 index;  // of the thread or the process
  };
  struct Budget {
    u32 kills = 0;
    u32 stops = 0;
    u32 early = 0;  // waits that may run out while others could still run
    // How often a thread that could go on is kept waiting for another one.
    static constexpr u32 kUnlimited = ~0u;
    u32 switches = kUnlimited;
  };
  // Runs every thread up to its next point.
  void Settle();
  // What can happen next. Empty at the end.
  void GetChoices(const Budget& budget, std::vector<Choice>& out);
  void Spend(const std::vector<Choice>& choices, const Choice& choice, Budget& budget);
  void Do(const Choice& choice, Budget& budget);
  u64 Hash(const Budget& budget) const;
  std::string Describe(const Choice& choice) const;
  u64 GetSteps() const { return steps_; }
  // True once if some word of memory turned out to be shared after it had been taken for private.
  bool TakeNewShared() { return std::exchange(hasNewShared_, false); }

  // For a scenario ---------------------------------------------------------------------------------------------------
  void Fail(const char* what);
  const std::string& GetFailure() const { return failure_; }
  ProcessState GetState(int process) const { return processes_[process]->state; }
  bool WasKilled(int process) const { return processes_[process]->wasKilled; }
  bool WasStopped(int process) const { return processes_[process]->wasStopped; }
  bool IsIdle(int process) const;
  std::shared_ptr<Object> Find(const std::string& name) const;
  // All regions that have ever been made.
  const std::vector<std::shared_ptr<Object>>& GetRegions() const { return regions_; }
  u64 GetTime() const { return time_; }

  // For the fibers ---------------------------------------------------------------------------------------------------
  bool IsInFiber() const { return current_ >= 0; }
  Thread& Current() { return *threads_[current_]; }
  int CurrentProcess() const { return threads_[current_]->process; }
  int CurrentThread() const { return current_; }
  std::intptr_t Call(const Step& step);
  Object* Lookup(const Thread& thread, HANDLE handle) const;
  bool ResumeThreadOf(HANDLE handle);
  bool IsSharedMemory(const void* address) const;
  void BeforeAccess(const void* address, bool isWrite);
  void NoteRead(u64 value);
  void NoteWrite(const void* address, std::size_t length, u64 before, u64 after);
  void NoteCopy(void* target, const void* source, std::size_t length);
  void SetIdle(bool isIdle) { Current().isIdle = isIdle; }
  // Ends the activity of the current process, which stays alive with all that it holds.
  void Park();
  // Records that the current thread has seen this value.
  void See(u64 value);

 private:
  struct Word {
    u8 users = 0;  // a bit for each process
    bool isWritten = false;
    bool isShared = false;
  };

  World();
  int AddThread(int process, std::function<void()> body);
  static void Enter();
  void Resume(int index);
  void RunOneStep(int index);
  bool IsPoint(int index) const;
  bool CanRun(int index) const;
  bool IsSignalled(int index, const Object& object) const;
  std::intptr_t Perform(int index);
  std::intptr_t OpenOrCreate(Thread& thread);
  std::intptr_t Wait(int index);
  std::intptr_t ReleaseMutexOf(int index);
  std::intptr_t AddSemaphore(Thread& thread);
  std::intptr_t StartThread(Thread& thread);
  void EndThread(int index);
  std::intptr_t OpenHandle(int process, const std::shared_ptr<Object>& object);
  void DropHandle(int process, std::intptr_t handle);
  void DropMutexes(int process);
  void DropHandles(int process);
  void TimeOut(int index);
  u8* MemoryFor(const std::string& name);
  Word& WordAt(const void* address);
  bool IsDone(int process) const;
  bool AreAllDone() const;
  void AddDrops(std::vector<Choice>& out) const;
  bool IsSwitch(const Choice& choice) const;
  bool MayBeDisturbed(int process) const;
  void AddDue(std::vector<Choice>& out);
  void AddDisturbances(const Budget& budget, bool isForced, std::vector<Choice>& out) const;

  std::vector<std::unique_ptr<Process>> processes_;
  std::vector<std::unique_ptr<Thread>> threads_;
  std::vector<u8*> stacks_;
  std::map<std::string, std::shared_ptr<Object>> named_;
  std::vector<std::shared_ptr<Object>> regions_;
  u8* pool_ = nullptr;
  std::map<std::string, u8*> memory_;  // kept from run to run, as is the next one
  std::vector<Word> words_;
  std::vector<std::pair<u8*, std::size_t>> written_;
  std::vector<u64> regionHash_;
  bool hasNewShared_ = false;
  u64 time_ = 0;
  u64 steps_ = 0;
  u64 endedAt_ = 0;
  std::set<int> servers_;
  u64 afterMs_ = 0;
  int current_ = -1;
  int last_ = -1;  // the thread that has done the last step
  jmp_buf scheduler_;
  std::string failure_;
};

}  // namespace kestrun::interleavings

#endif  // KESTRUN_TESTS_INTERLEAVINGS_WORLD_H_
