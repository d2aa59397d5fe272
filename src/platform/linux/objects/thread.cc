#include <linux/capability.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/linux/base/signal_stack.h"
#include "platform/linux/objects/futex.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/objects/thread_object.h"

namespace kestrun::platform {

namespace {

// What a thread's priority adds to the nice value. On Linux a nice value belongs to a thread, though POSIX speaks of
// processes.
struct PriorityStep {
  int priority;
  int niceChange;
};

constexpr PriorityStep kPrioritySteps[] = {
    {THREAD_PRIORITY_IDLE, 19},           {THREAD_PRIORITY_LOWEST, 10},       {THREAD_PRIORITY_BELOW_NORMAL, 5},
    {THREAD_PRIORITY_NORMAL, 0},          {THREAD_PRIORITY_ABOVE_NORMAL, -3}, {THREAD_PRIORITY_HIGHEST, -6},
    {THREAD_PRIORITY_TIME_CRITICAL, -15},
};

bool MayLowerNice(int target) {
  rlimit limit{};
  // The limit is counted the other way round: a value of n allows nice values down to 20 - n.
  if (getrlimit(RLIMIT_NICE, &limit) == 0 &&
      (limit.rlim_cur == RLIM_INFINITY || static_cast<int>(limit.rlim_cur) >= 20 - target)) {
    return true;
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  return (data[CAP_TO_INDEX(CAP_SYS_NICE)].effective & CAP_TO_MASK(CAP_SYS_NICE)) != 0;
}

// Most users may raise a thread's nice value but not lower it again. Their threads would keep a low priority that was
// meant for a moment, so the nice value of such a user's threads is never changed.
void ApplyNice(DWORD threadId, int change) {
  static const int base = getpriority(PRIO_PROCESS, 0);
  static const bool canReturn = MayLowerNice(base);
  if (!canReturn) return;
  setpriority(PRIO_PROCESS, threadId, std::clamp(base + change, -20, 19));
}

// The argument owns a reference, which keeps the object alive until the thread has it in its own data.
void* RunThread(void* argument) {
  PrepareSignalStack();
  std::unique_ptr<std::shared_ptr<ThreadObject>> object(static_cast<std::shared_ptr<ThreadObject>*>(argument));
  CurrentThreadData().object = *object;
  (*object)->Run();
  return nullptr;
}

thread_local ThreadData* threadData = nullptr;

// The destructor of the key. The C library runs it after the destructors of thread_local objects, which may still use
// mutexes; so the layer's own data is kept under a key and is no thread_local object.
void EndThread(void* pointer) {
  std::unique_ptr<ThreadData> data(static_cast<ThreadData*>(pointer));
  threadData = nullptr;
  AbandonOwnedMutexes(*data);
  if (data->object) data->object->Finish();
}

pthread_key_t EndOfThreadKey() {
  static const pthread_key_t key = [] {
    pthread_key_t made{};
    pthread_key_create(&made, EndThread);
    return made;
  }();
  return key;
}

class ThreadAttributes {
 public:
  explicit ThreadAttributes(SIZE_T stackSize) {
    pthread_attr_init(&attributes_);
    pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED);
    if (stackSize != 0) pthread_attr_setstacksize(&attributes_, std::max<SIZE_T>(stackSize, kSmallestStack));
  }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;
  ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }

  const pthread_attr_t* get() const { return &attributes_; }

 private:
  static constexpr SIZE_T kSmallestStack = 256 * 1024;
  pthread_attr_t attributes_;
};

}  // namespace

ThreadData& CurrentThreadData() {
  if (!threadData) {
    threadData = std::make_unique<ThreadData>().release();
    pthread_setspecific(EndOfThreadKey(), threadData);
  }
  return *threadData;
}

std::shared_ptr<ThreadObject> CurrentThreadObject() {
  ThreadData& data = CurrentThreadData();
  if (!data.object) data.object = std::make_shared<ThreadObject>(GetCurrentThreadId());
  return data.object;
}

int CurrentPriority() {
  const ThreadData& data = CurrentThreadData();
  return data.object ? data.object->priority() : THREAD_PRIORITY_NORMAL;
}

ThreadObject::ThreadObject(LPTHREAD_START_ROUTINE start, LPVOID argument, bool suspended)
    : Completion(kKind),
      start_(start),
      argument_(argument),
      inheritsPriority_(CurrentPriority() != THREAD_PRIORITY_NORMAL),
      suspended_(suspended ? 1 : 0) {}

ThreadObject::ThreadObject(DWORD threadId) : Completion(kKind), threadId_(threadId) {}

DWORD ThreadObject::Resume() {
  // Sequentially consistent, of which release is needed: what was done before the resume is visible to the thread.
  const DWORD before = suspended_.exchange(0, std::memory_order_seq_cst);
  if (before != 0) FutexWake(suspended_, INT_MAX, Scope::kProcess);
  return before;
}

DWORD ThreadObject::threadId() {
  // Acquire pairs with the store in Run, in both loads.
  while (threadId_.load(std::memory_order_acquire) == 0) FutexWait(threadId_, 0, Scope::kProcess, Deadline::Never());
  return threadId_.load(std::memory_order_acquire);
}

bool ThreadObject::SetPriority(int priority) {
  const auto* step = std::find_if(std::begin(kPrioritySteps), std::end(kPrioritySteps),
                                  [=](const PriorityStep& candidate) { return candidate.priority == priority; });
  if (step == std::end(kPrioritySteps)) return false;
  // Relaxed: the number guards no other data.
  const int before = priority_.exchange(priority, std::memory_order_relaxed);
  // The kernel may have given the number of a thread that has ended to a new one.
  if (before != priority && !IsSignalled()) ApplyNice(threadId(), step->niceChange);
  return true;
}

void ThreadObject::Run() {
  // A new thread has the nice value of its maker. On Windows it starts with the normal priority, so the value is put
  // back.
  if (inheritsPriority_) ApplyNice(GetCurrentThreadId(), 0);
  // Sequentially consistent, of which release is needed: it pairs with the loads in threadId.
  threadId_.store(GetCurrentThreadId(), std::memory_order_seq_cst);
  FutexWake(threadId_, INT_MAX, Scope::kProcess);
  // Acquire pairs with the exchange in Resume.
  while (suspended_.load(std::memory_order_acquire) != 0) {
    FutexWait(suspended_, 1, Scope::kProcess, Deadline::Never());
  }
  // Release pairs with the acquire in exitCode.
  exitCode_.store(start_(argument_), std::memory_order_release);
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stackSize, LPTHREAD_START_ROUTINE start, LPVOID argument, DWORD flags,
                    DWORD* threadId) {
  const auto object = std::make_shared<ThreadObject>(start, argument, (flags & CREATE_SUSPENDED) != 0);
  const HANDLE handle = AllocateHandle(object);
  if (!handle) return nullptr;
  auto passed = std::make_unique<std::shared_ptr<ThreadObject>>(object);
  const ThreadAttributes attributes(stackSize);
  pthread_t thread{};
  const int error = pthread_create(&thread, attributes.get(), RunThread, passed.get());
  if (error != 0) {
    ReleaseHandle(handle);
    SetLastError(Win32ErrorFromErrno(error));
    return nullptr;
  }
  passed.release();
  if (threadId) *threadId = object->threadId();
  return handle;
}

DWORD ResumeThread(HANDLE thread) {
  const auto object = LookUpObject(thread);
  return object ? object->Resume() : 0xFFFFFFFFu;
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
  const auto object = LookUp<ThreadObject>(thread);
  if (!object) return FALSE;
  if (object->SetPriority(priority)) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

int GetThreadPriority(HANDLE thread) {
  const auto object = LookUp<ThreadObject>(thread);
  return object ? object->priority() : THREAD_PRIORITY_ERROR_RETURN;
}

BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode) {
  const auto object = LookUp<ThreadObject>(thread);
  if (!object) return FALSE;
  *exitCode = object->IsSignalled() ? object->exitCode() : STILL_ACTIVE;
  return TRUE;
}

HANDLE GetCurrentThread() {
  return kCurrentThreadHandle;
}

DWORD GetCurrentThreadId() {
  thread_local const DWORD id = static_cast<DWORD>(gettid());
  return id;
}

HANDLE GetCurrentProcess() {
  return INVALID_HANDLE_VALUE;
}

DWORD GetCurrentProcessId() {
  return static_cast<DWORD>(getpid());
}

DWORD TlsAlloc() {
  pthread_key_t key{};
  if (pthread_key_create(&key, nullptr) == 0) return key;
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD index) {
  if (pthread_key_delete(index) == 0) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

LPVOID TlsGetValue(DWORD index) {
  // As on Windows: without an error the null is the thread's value.
  SetLastError(ERROR_SUCCESS);
  return pthread_getspecific(index);
}

BOOL TlsSetValue(DWORD index, LPVOID value) {
  if (pthread_setspecific(index, value) == 0) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}
