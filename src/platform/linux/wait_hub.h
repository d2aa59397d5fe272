// Hubs: where a thread sleeps that waits for several objects at once.
//
// A hub is a counter. The waiter marks each of its objects with the hub's bit, reads the counter, tries each object,
// and sleeps while the counter stays what it was. Whoever signals an object afterwards finds the mark and moves the
// counter. Marks are never taken back; a mark too many costs a needless increment.
//
// Objects of one process are marked for one of two hubs: the process's own (bit 0), or its machine hub (bit 1), used
// when objects of other processes are in the same wait. Shared objects are marked for a machine hub: one of 64 in a
// page that all processes of the user map. A process claims one for itself if it can, since a hub that many processes
// sleep on wakes them all; the last of the 64 serves everybody else.
#ifndef KESTRUN_PLATFORM_LINUX_WAIT_HUB_H_
#define KESTRUN_PLATFORM_LINUX_WAIT_HUB_H_

#include <atomic>
#include <cstdint>

#include "platform/linux/waitable.h"

namespace kestrun::platform {

struct alignas(64) HubWord {
  std::atomic<std::uint32_t> counter;
  std::atomic<std::uint32_t> sleepers;
};

class Hub {
 public:
  // The hub of this process for objects of the given scope. When the shared page can't be had, the process's own hub
  // serves for shared objects too: IsComplete is false then, and a sleep on it must be short.
  static Hub For(Scope scope);

  bool IsComplete() const { return complete_; }
  void Mark(Waitable& waitable) const;
  std::uint32_t Counter() const { return word_->counter.load(std::memory_order_seq_cst); }
  // Sleeps while the counter is `seen`. False where the kernel refuses.
  bool Sleep(std::uint32_t seen, const Deadline& deadline) const;

 private:
  Hub(HubWord* word, Scope scope, unsigned index, bool complete)
      : word_(word), scope_(scope), index_(index), complete_(complete) {}

  HubWord* word_;
  Scope scope_;
  unsigned index_;  // of a machine hub
  bool complete_;
};

// Wakes the sleepers of each hub in `marks`, which were read from an object of that scope after it was signalled.
void NotifyHubs(std::uint64_t marks, Scope scope);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_WAIT_HUB_H_
