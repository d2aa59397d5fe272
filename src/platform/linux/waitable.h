// Objects that a thread can wait for, and the words in memory that waiting is built on.
//
// The state of an object is one 32-bit word: 0 is not signalled, and a wait is satisfied by an atomic change of the
// word. A thread that waits for one object sleeps on the word itself. A thread that waits for several sleeps on a hub,
// a counter of its process (wait_hub.h), and leaves the hub's mark in each of the objects; whoever signals an object
// bumps the hubs that have marked it. Both kinds try to satisfy the wait themselves each time they wake, so that
// exactly as many waits are satisfied as there were signals, whoever was woken.
//
// A signal makes no system call unless somebody sleeps. A waiter that is killed may take a wake-up with it and leave
// its counts behind: so a sleep on an object that other processes share is cut into slices of a second, and
// a count that is too high costs a needless wake-up and nothing else.
#ifndef KESTRUN_PLATFORM_LINUX_WAITABLE_H_
#define KESTRUN_PLATFORM_LINUX_WAITABLE_H_

#include <atomic>
#include <cstdint>
#include <ctime>

#include "platform/linux/object.h"

namespace kestrun::platform {

// A point in time on CLOCK_MONOTONIC, or never.
class Deadline {
 public:
  // INFINITE means never.
  static Deadline After(DWORD timeoutMs);
  static Deadline Never() { return Deadline(kNever); }

  bool IsNever() const { return ns_ == kNever; }
  bool HasPassed() const;
  // This deadline, or sliceMs from now if that comes first.
  Deadline OrAfter(DWORD sliceMs) const;
  timespec ToTimespec() const;
  // As a span from now; 0 if it has passed.
  timespec Left() const;

 private:
  static constexpr std::int64_t kNever = INT64_MAX;
  explicit Deadline(std::int64_t ns) : ns_(ns) {}
  static std::int64_t Now();

  std::int64_t ns_;
};

// Where the other users of a word are.
enum class Scope { kProcess, kMachine };

// The words of one waitable object. They may lie in memory that is shared between processes; zeroed memory is a valid,
// not signalled state.
struct WaitState {
  std::atomic<std::uint32_t> word;      // what the object's kind makes of it; 0 is not signalled
  std::atomic<std::uint32_t> sleepers;  // threads asleep on `word`, perhaps fewer
  std::atomic<std::uint64_t> hubs;      // hubs that ever waited for this object; see wait_hub.h
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);

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

  // What SignalObjectAndWait does to its first object. False with the last error.
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
  bool IsSignalled() const { return ownState_.word.load(std::memory_order_acquire) != 0; }

  DWORD TryAcquire() override { return IsSignalled() ? 0u /* WAIT_OBJECT_0 */ : WAIT_TIMEOUT; }
  bool IsConsumable() const override { return false; }

 private:
  WaitState ownState_{};
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_WAITABLE_H_
