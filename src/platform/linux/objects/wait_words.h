// The words in memory on which waits are built: those of one object, and those of a hub, on which a thread sleeps that
// waits for several objects. What they mean and which threads change them is told in waitable.h and wait_hub.h.
//
// They may lie in memory that processes share, so they hold nothing but lock-free atomic numbers, and zeroed memory is
// a valid state: not signalled, no sleepers. The words of shared objects and hubs are part of the object table's layout
// (object_layout.h).
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_WORDS_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_WORDS_H_

#include <atomic>
#include <cstdint>

namespace kestrun::platform {

// The processes that use a word.
enum class Scope {
  kProcess,  // this one alone
  kMachine,  // all that share the object table
};

// The words of one object that can be waited for.
struct WaitState {
  std::atomic<std::uint32_t> word;      // its meaning depends on the kind of object; 0 is not signalled
  std::atomic<std::uint32_t> sleepers;  // threads asleep on `word`; too high after a sleeper was killed
  std::atomic<std::uint64_t> hubs;      // marks of the hubs whose sleepers ever waited for this object
};

// The words of one hub, in a cache line of their own.
struct alignas(64) HubWord {
  std::atomic<std::uint32_t> counter;   // moves with each signal of a marked object
  std::atomic<std::uint32_t> sleepers;  // threads asleep on `counter`; too high after a sleeper was killed
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_WORDS_H_
