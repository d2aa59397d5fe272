// A thread of this process, and the data that the layer keeps for each thread that uses it.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_THREAD_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_THREAD_OBJECT_H_

#include <atomic>
#include <memory>
#include <vector>

#include "platform/api/sync_api.h"
#include "platform/linux/objects/waitable.h"

namespace kestrun::platform {

struct ObjectHeader;

// Signalled when the thread has run all its clean-up: the destructors of its thread_local objects come before.
//
// Made by CreateThread, or for the calling thread when it first asks for itself. All members but Run and Finish may be
// called from any thread.
class ThreadObject : public Completion {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kThread;

  ThreadObject(LPTHREAD_START_ROUTINE start, LPVOID argument, bool suspended);
  // For a thread that runs already.
  explicit ThreadObject(DWORD threadId);

  DWORD Resume() override;

  // Blocks until a new thread has published its number.
  DWORD threadId();
  // Acquire: what the thread did before it ended is visible with its code.
  DWORD exitCode() const { return exitCode_.load(std::memory_order_acquire); }
  // Relaxed, as in SetPriority: it guards no other data.
  int priority() const { return priority_.load(std::memory_order_relaxed); }
  // False for a value that is none of the THREAD_PRIORITY_ ones.
  bool SetPriority(int priority);

  // On the thread itself: publishes its number, waits until it is resumed and runs its function.
  void Run();
  // On the thread itself, last of all.
  void Finish() { Signal(); }

 private:
  const LPTHREAD_START_ROUTINE start_ = nullptr;
  const LPVOID argument_ = nullptr;
  // The thread that makes this one runs at another priority than normal, which the kernel would hand down.
  const bool inheritsPriority_ = false;
  std::atomic<std::uint32_t> threadId_{0};   // a futex until it is set
  std::atomic<std::uint32_t> suspended_{0};  // a futex while it is 1
  std::atomic<DWORD> exitCode_{STILL_ACTIVE};
  std::atomic<int> priority_{THREAD_PRIORITY_NORMAL};
};

// A mutex that the thread has taken `depth` times. Holding its memory keeps it alive when the handle is closed first:
// the kernel reaches a dead owner's mutexes through a list that runs through that memory.
struct OwnedMutex {
  std::shared_ptr<ObjectHeader> memory;
  Scope scope = Scope::kProcess;
  std::uint32_t depth = 0;
};

// Owned and touched by its thread alone.
struct ThreadData {
  std::shared_ptr<ThreadObject> object;
  std::vector<OwnedMutex> ownedMutexes;
};

// The calling thread's; made on first use, also on threads that CreateThread did not start. When the thread ends, its
// mutexes are abandoned and then its object is signalled.
ThreadData& CurrentThreadData();

std::shared_ptr<ThreadObject> CurrentThreadObject();

// As last set by SetThreadPriority on the calling thread.
int CurrentPriority();

// In mutex.cc.
void AbandonOwnedMutexes(ThreadData& data);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_THREAD_OBJECT_H_
