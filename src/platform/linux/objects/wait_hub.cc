// How a thread waits for several objects. A futex sleeps on one word, and a wait for a list of words (futex_waitv)
// exists only since Linux 5.16; so a waiter sleeps on the counter of a hub, and signals of its objects move that
// counter.
//
// A waiter and a signaller never miss one another, because of the order of their steps:
//
//   waiter                              signaller
//   marks the object                    changes the object's word
//   reads the hub's counter             reads the object's marks
//   tries the object                    moves the counter of each marked hub
//   sleeps while the counter is equal   wakes the sleepers, if the hub counts any
//
// There are three cases. A signaller that reads the marks before the waiter's was made has changed the word before
// that, and the waiter finds the object signalled when it tries. A signaller that moves the counter before the waiter
// reads it has changed the word before that as well. Any other signaller moves a counter that the waiter has read,
// which keeps the waiter from sleeping or wakes it.
//
// In each column a store is followed by a load of another word. Acquire and release do not order these two, so all of
// them are sequentially consistent.
#include "platform/linux/objects/wait_hub.h"

#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <mutex>

#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/objects/futex.h"
#include "platform/linux/objects/object_table.h"

namespace kestrun::platform {

namespace {

// The last hub is shared by all processes that found no other one free.
constexpr unsigned kCommonHub = kMachineHubs - 1;

constexpr std::uint64_t kProcessMark = 1;
constexpr std::uint64_t kMachineMark = 2;

HubWord processHub{};

// The hubs in the object table, and the one of them that this process has claimed. The table is the first that the
// process enters; if it can't enter one then, it has no machine hubs until it ends.
class MachineHubs {
 public:
  static MachineHubs& Get() {
    static NeverDestroyed<MachineHubs> hubs;
    return hubs.get();
  }

  // Null without a table.
  HubWord* page() { return page_; }

  // The hub that this process sleeps on.
  unsigned Claimed() {
    std::call_once(claimOnce_, [this] { Claim(); });
    return claimed_;
  }
  // The claimed hub, or -1 if no thread has asked for it yet. Acquire pairs with the release in Claim: what was written
  // to the hub there is visible.
  int ClaimedSoFar() const { return claimedSoFar_.load(std::memory_order_acquire); }

 private:
  friend class NeverDestroyed<MachineHubs>;

  MachineHubs() : table_(ObjectTable::Current()), page_(table_ ? table_->hubs() : nullptr) {}

  // The kernel drops the claim when the process ends.
  void Claim() {
    // Processes start their search at different hubs, so that most find a free one at the first try.
    const auto start = static_cast<unsigned>(getpid()) % kCommonHub;
    for (unsigned i = 0; i < kCommonHub; ++i) {
      const unsigned hub = (start + i) % kCommonHub;
      if (!table_->ClaimHub(hub)) continue;
      // An owner that was killed while its threads slept has left its count, which would cost each signal a needless
      // call. Sequentially consistent, like all accesses to the words of hubs.
      page_[hub].sleepers.store(0, std::memory_order_seq_cst);
      claimed_ = hub;
      break;
    }
    // Release: see ClaimedSoFar.
    claimedSoFar_.store(static_cast<int>(claimed_), std::memory_order_release);
  }

  ObjectTable* const table_;
  HubWord* const page_;
  std::once_flag claimOnce_;
  unsigned claimed_ = kCommonHub;
  std::atomic<int> claimedSoFar_{-1};
};

// Sequentially consistent: the counter moves before the number of sleepers is read. A sleeper counts itself before the
// kernel compares the counter, so either this wakes it or it does not sleep.
void Notify(HubWord& hub, Scope scope) {
  hub.counter.fetch_add(1, std::memory_order_seq_cst);
  if (hub.sleepers.load(std::memory_order_seq_cst) != 0) FutexWake(hub.counter, INT_MAX, scope);
}

}  // namespace

Hub Hub::For(Scope scope) {
  if (scope == Scope::kProcess) return Hub(&processHub, Scope::kProcess, 0, true);
  MachineHubs& hubs = MachineHubs::Get();
  if (!hubs.page()) return Hub(&processHub, Scope::kProcess, 0, false);
  const unsigned index = hubs.Claimed();
  return Hub(&hubs.page()[index], Scope::kMachine, index, true);
}

void Hub::Mark(WaitState& state, Scope scope) const {
  std::uint64_t mark;
  if (scope == Scope::kMachine) {
    if (scope_ == Scope::kProcess) return;
    mark = std::uint64_t{1} << index_;
  } else {
    mark = scope_ == Scope::kProcess ? kProcessMark : kMachineMark;
  }
  // Sequentially consistent, as Waitable::Wake's reading of it: the mark is there before the waiter tries the object,
  // and a signaller changes the object before it reads the marks.
  if ((state.hubs.load(std::memory_order_seq_cst) & mark) == 0) state.hubs.fetch_or(mark, std::memory_order_seq_cst);
}

bool Hub::Sleep(std::uint32_t seen, const Deadline& deadline) const {
  // Sequentially consistent: see Notify.
  word_->sleepers.fetch_add(1, std::memory_order_seq_cst);
  const long result = FutexWait(word_->counter, seen, scope_, deadline);
  const int error = errno;
  // Sequentially consistent, as all accesses here; a signaller that reads the old count makes a needless call.
  word_->sleepers.fetch_sub(1, std::memory_order_seq_cst);
  if (result == 0 || error == EAGAIN || error == EINTR || error == ETIMEDOUT) return true;
  SetLastError(Win32ErrorFromErrno(error));
  return false;
}

void NotifyHubs(std::uint64_t marks, Scope scope) {
  if (scope == Scope::kProcess && (marks & kProcessMark)) Notify(processHub, Scope::kProcess);
  if (scope == Scope::kProcess && !(marks & kMachineMark)) return;
  MachineHubs& hubs = MachineHubs::Get();
  if (!hubs.page()) return;
  if (scope == Scope::kProcess) {
    // The mark is that of a waiter of this process, which claimed the hub before.
    const int own = hubs.ClaimedSoFar();
    if (own >= 0) Notify(hubs.page()[own], Scope::kMachine);
    return;
  }
  for (; marks != 0; marks &= marks - 1) Notify(hubs.page()[std::countr_zero(marks)], Scope::kMachine);
}

}  // namespace kestrun::platform
