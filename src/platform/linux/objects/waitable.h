// Objects that a thread can wait for.
//
// The state of an object is one 32-bit word: 0 is not signalled, and a wait is satisfied by an atomic change of the
// word. A thread that waits for one object sleeps on the word itself. A thread that waits for several sleeps on a hub,
// a counter of its process (wait_hub.h), and leaves the hub's mark in each of the objects; the thread that signals an
// object moves the counters of all hubs that have marked it. Each waiter tries to satisfy its wait itself whenever it
// wakes, so that exactly as many waits are satisfied as there were signals, whichever thread was woken.
//
// A signal makes no system call unless a thread sleeps. A waiter that is killed may take a wake-up with it and leave
// the object's count of sleepers too high: so a sleep on an object that other processes share is cut into slices
// (SleepSlices), and a count that is too high costs a needless wake-up and nothing else.
//
// All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_WAITABLE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_WAITABLE_H_

#include <atomic>

#include "platform/linux/base/object.h"
#include "platform/linux/objects/deadline.h"
#include "platform/linux/objects/wait_words.h"

namespace kestrun::platform {

class Waitable : public Object {
 public:
  Waitable* AsWaitable() override { return this; }

  // Satisfies a wait without sleeping: WAIT_OBJECT_0, WAIT_ABANDONED, or WAIT_TIMEOUT if the object isn't signalled.
  virtual DWORD TryAcquire() = 0;

  // Sleeps until a wait is satisfied or the deadline has passed. WAIT_FAILED with the last error where the kernel
  // refuses.
  virtual DWORD Acquire(const Deadline& deadline);

  // True where a satisfied wait changes the state.
  virtual bool IsConsumable() const { return true; }

  // Signals the object as SignalObjectAndWait does with its first one. False with the last error.
  virtual bool SignalOne();

  WaitState& state() { return *state_; }
  Scope scope() const { return scope_; }

 protected:
  // `state` must live as long as the object does.
  Waitable(ObjectKind kind, WaitState* state, Scope scope) : Object(kind), state_(state), scope_(scope) {}

  // After a change of the word that may satisfy waits: wakes up to `count` threads asleep on it, and the hubs.
  void Wake(int count);

 private:
  WaitState* const state_;
  const Scope scope_;
};

// An object of this process that becomes signalled once and stays so: the base of threads and processes.
//
// Signal may be called from any thread, once or several times.
class Completion : public Waitable {
 public:
  explicit Completion(ObjectKind kind) : Waitable(kind, &ownState_, Scope::kProcess) {}

  void Signal();
  // Acquire pairs with the store in Signal: what was done before the signal is visible.
  bool IsSignalled() const { return ownState_.word.load(std::memory_order_acquire) != 0; }

  DWORD TryAcquire() override { return IsSignalled() ? 0u /* WAIT_OBJECT_0 */ : WAIT_TIMEOUT; }
  bool IsConsumable() const override { return false; }

 private:
  WaitState ownState_{};
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_WAITABLE_H_
