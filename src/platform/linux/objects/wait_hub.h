// Hubs: counters on which threads sleep that wait for several objects at once.
//
// The waiter marks each of its objects with the hub's bit, reads the counter, tries each object, and sleeps while the
// counter keeps its value. A thread that signals an object afterwards finds the mark and moves the counter. Marks are
// never taken back; a mark too many costs a needless increment.
//
// Objects of one process are marked for one of two hubs: the process's own (bit 0), or its machine hub (bit 1), used
// when shared objects are in the same wait. Shared objects are marked for a machine hub: one of 64 in the object table.
// A process claims one for itself if it can, since a hub on which several processes sleep wakes them all; the last of
// the 64 serves all processes that found none free.
//
// All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_HUB_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_HUB_H_

#include <atomic>
#include <cstdint>

#include "platform/linux/objects/deadline.h"
#include "platform/linux/objects/wait_words.h"

namespace kestrun::platform {

class Hub {
 public:
  // The hub of this process for objects of the given scope. Without an object table the process's own hub serves for
  // shared objects too; IsComplete is false then: signals of other processes don't reach it, so a sleep on it must be
  // short.
  static Hub For(Scope scope);

  bool IsComplete() const { return complete_; }
  // Leaves this hub's mark in the words of an object of that scope.
  void Mark(WaitState& state, Scope scope) const;
  // Sequentially consistent: ordered behind the marks, and before the objects are tried.
  std::uint32_t Counter() const { return word_->counter.load(std::memory_order_seq_cst); }
  // Sleeps while the counter is `seen`. False with the last error where the kernel refuses.
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

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_WAIT_HUB_H_
