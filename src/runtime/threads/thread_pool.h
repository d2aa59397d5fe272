// Runs delegates on a fixed number of threads; with 0 threads, at once on the caller's.
//
// Any thread may queue. Several threads run items at once, so that the order of the queue is only the order in which
// they begin. Items that wait when the pool stops are dropped, and a stopped pool takes no more. A SystemException from
// an item is printed to the standard error stream and the worker goes on; in a pool without threads it passes to the
// caller of Queue.
#ifndef KESTRUN_RUNTIME_THREADS_THREAD_POOL_H_
#define KESTRUN_RUNTIME_THREADS_THREAD_POOL_H_

#include <atomic>
#include <string>
#include <vector>

#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/exception.h"
#include "runtime/base/types.h"
#include "runtime/threads/blocking_queue.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// Prints what an item of a pool threw.
void ReportPoolFailure(const std::string& pool, int worker, const SystemException& failure);

// `Item` is Functor0<void>::Type.
template <class Item>
class ThreadPool {
 public:
  static constexpr u32 kStopTimeoutMs = 60000;

  // The name appears in messages.
  explicit ThreadPool(const std::string& name) : name_(name) {}
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  // Stops. A worker that has not ended in time still uses the pool, so an owner whose Stop gave false ends the process
  // or keeps the pool.
  virtual ~ThreadPool() { Stop(kStopTimeoutMs); }

  // Called once, before the first Queue. False if the system has refused a worker; those that it gave run.
  bool Start(u32 threadCount);

  // An urgent item goes ahead of all that have not begun. False if the pool is stopped: the item is not run.
  bool Queue(Item item, bool urgent);

  // True if all workers have ended. The first call does the work; one that comes while it is under way waits for it,
  // and one after a call that ran out of time is false at once. There is no new start.
  bool Stop(u32 timeoutMs);

 protected:
  virtual Thread* CreateWorker(int index) { return new Thread("ThreadPool thread " + std::to_string(index)); }

 private:
  void Work(int index);
  bool WaitForOtherStop(u32 timeoutMs);

  std::vector<rc_ptr<Thread>> threads_;
  // Set before the first worker runs, and constant from there.
  bool hasWorkers_ = false;
  std::string name_;
  BlockingQueue<Item> queue_;
  CriticalSection lock_;
  ConditionVariable stopped_;
  std::atomic<bool> stopping_{false};
  // Guarded by lock_: true when the first Stop has returned.
  bool finished_ = false;
};

template <class Item>
bool ThreadPool<Item>::Start(u32 threadCount) {
  hasWorkers_ = threadCount > 0;
  bool isComplete = true;
  auto work = MakeDelegate(&ThreadPool::Work, this);
  for (int index = 0; index < static_cast<int>(threadCount); ++index) {
    rc_ptr<Thread> worker(CreateWorker(index));
    if (!worker->Start(MakeClosure(work, index), Thread::kNormalPriority)) isComplete = false;
    threads_.push_back(worker);
  }
  return isComplete;
}

template <class Item>
bool ThreadPool<Item>::Queue(Item item, bool urgent) {
  if (stopping_) return false;
  if (!hasWorkers_) {
    item();
  } else if (urgent) {
    queue_.PushFront(item);
  } else {
    queue_.Push(item);
  }
  return true;
}

template <class Item>
void ThreadPool<Item>::Work(int index) {
  for (;;) {
    Item item;
    if (!queue_.Pop(item, kNoLimit) || stopping_) return;
    try {
      item();
    } catch (const SystemException& failure) {
      ReportPoolFailure(name_, index, failure);
    }
  }
}

template <class Item>
bool ThreadPool<Item>::Stop(u32 timeoutMs) {
  {
    const Lock lock(lock_);
    if (stopping_) return WaitForOtherStop(timeoutMs);
    stopping_ = true;
  }
  // From here on only this call changes the list of threads. An empty item for each worker ends those that wait; those
  // that find `stopping_` set end as well.
  for (size_t i = 0; i < threads_.size(); ++i) queue_.Push(Item());
  for (const auto& worker : threads_) worker->SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  bool ended = Thread::WaitAll(threads_, timeoutMs);
  const Lock lock(lock_);
  if (ended) threads_.clear();
  finished_ = true;
  stopped_.Signal();
  return ended;
}

template <class Item>
bool ThreadPool<Item>::WaitForOtherStop(u32 timeoutMs) {
  while (!finished_) {
    if (!stopped_.Wait(lock_, timeoutMs)) return false;
  }
  // Signalled on for the next thread that waits, because the event lets only one pass.
  stopped_.Signal();
  return threads_.empty();
}

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_THREAD_POOL_H_
