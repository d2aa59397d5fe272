// A queue between threads, without a bound. Any number of threads may push and pop.
//
// The event behind the queue remembers one signal only, so two pushes may wake one thread. Therefore a thread that
// takes an item and leaves others behind signals again; no item stays in the queue while a thread waits for one.
#ifndef KESTRUN_RUNTIME_THREADS_BLOCKING_QUEUE_H_
#define KESTRUN_RUNTIME_THREADS_BLOCKING_QUEUE_H_

#include <list>
#include <utility>

#include "runtime/base/critical_section.h"
#include "runtime/base/types.h"
#include "runtime/threads/sync.h"

namespace kestrun {

template <class T>
class BlockingQueue {
 public:
  void Push(const T& item) {
    const Lock lock(lock_);
    items_.push_back(item);
    condition_.Signal();
  }

  // The item goes ahead of all that wait.
  void PushFront(const T& item) {
    const Lock lock(lock_);
    items_.push_front(item);
    condition_.Signal();
  }

  // Takes the first item, waiting for one at most `timeoutMs`; the time starts anew when another thread was faster.
  bool Pop(T& item, u32 timeoutMs) {
    const Lock lock(lock_);
    while (items_.empty()) {
      if (!condition_.Wait(lock_, timeoutMs)) return false;
    }
    item = std::move(items_.front());
    items_.pop_front();
    if (!items_.empty()) condition_.Signal();
    return true;
  }

  u32 GetSize() {
    const Lock lock(lock_);
    return static_cast<u32>(items_.size());
  }

 private:
  std::list<T> items_;
  CriticalSection lock_;
  ConditionVariable condition_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_BLOCKING_QUEUE_H_
