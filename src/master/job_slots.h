// The master's limit on jobs that run at once, shared by its own build threads and by clients that run their tools
// themselves.
#ifndef KESTRUN_MASTER_JOB_SLOTS_H_
#define KESTRUN_MASTER_JOB_SLOTS_H_

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun {

// Hands out a fixed number of slots, in the order of asking.
//
// A job may itself start clients and wait for them, as `kestrun make` does. If each of them needed a slot of its own, a
// few such jobs would hold all slots while they wait for children that never get one. So a job that holds a slot lends
// it: where no slot is free, one client at a time among its descendants runs in its slot, and further ones wait. A
// borrower lends on in the same way, so that any depth of nesting runs in one slot.
//
//   state         | granted when                               | when it ends
//   waiting       | it has a slot of its own process; or one   | it leaves the queue
//                 | is free; or its nearest ancestor with a    |
//                 | slot lends to no other job; or it shares   |
//                 | a pipe with a job that runs; or all that   |
//                 | run are idle                               |
//   owns its slot |                                            | its borrower owns the slot from then on;
//                 |                                            | without one the slot is free
//   borrows       |                                            | its borrower, if any, borrows in its stead;
//                 |                                            | the lender may lend again
//
// Jobs that are connected by a pipe run together, and only the first one takes a slot: each of them waits for the
// others. And where JobWatch finds that all running jobs are idle, one more runs beside the limit: they may be waiting
// for what that job does.
//
// Ancestors are found by process id, and only where no slot is free, because the search makes some system calls.
//
// Threads: any. The listener is called without the lock, on the thread whose call led to the grant, so that it may call
// back; the job may have left again by then.
class JobSlots {
 public:
  // Names a job among those that have not left. Chosen by the caller, never 0.
  using Ticket = u64;
  // Called for each job that had to wait and is granted now.
  using Listener = std::function<void(Ticket)>;
  // The process's parent; 0 if there is none, or the system does not tell.
  using ParentOf = u32 (*)(u32 processId);

  // At least one slot.
  JobSlots(u32 count, ParentOf parentOf);
  JobSlots(const JobSlots&) = delete;
  JobSlots& operator=(const JobSlots&) = delete;

  // Before the first Ask. It also gets the tickets of AskAndWait.
  void SetListener(Listener listener) { listener_ = std::move(listener); }

  // Asks for a slot for the job that runs, or will run, in this process. True if it is granted at once; otherwise the
  // listener is told later, unless the job leaves first.
  bool Ask(Ticket ticket, u32 processId) { return Ask(ticket, processId, 0, 0); }
  // The same for a job whose standard input and output are these pipes; 0 means no pipe.
  bool Ask(Ticket ticket, u32 processId, u64 inputPipe, u64 outputPipe);
  // The job has ended, or no longer wants a slot. Nothing for an unknown ticket.
  void Leave(Ticket ticket);

  // The same for the master's own threads, which run a job for this client, 0 if unknown: a job that the client is
  // below lends to it. Waits until the slot is granted; false, without a slot, after Stop.
  bool AskAndWait(Ticket ticket, u32 clientProcess = 0);
  // The process in which the job of AskAndWait runs, once there is one: descendants of that process may borrow.
  void SetProcess(Ticket ticket, u32 processId);

  // True if the process or one of its ancestors is `ancestor` or holds a slot. Takes some system calls.
  bool IsBelow(u32 processId, u32 ancestor) const;

  // Ends all present and future waits of AskAndWait.
  void Stop();

  // For JobWatch. Waits until a job waits for a slot; false after Stop.
  bool AwaitWaiting();
  // The processes of the jobs that run, and a number that changes with each job that is granted or leaves.
  std::vector<u32> GetRunning(u64& generation) const;
  // Grants the job that has waited longest a slot beside the limit. False if the generation is another one by now.
  bool GrantBeyond(u64 generation);

  // A ticket that was not given before; callers that choose tickets themselves set a high bit.
  Ticket NewTicket();

  bool IsGranted(Ticket ticket) const;
  // The number of the job's slot, from 0 upward: the lowest that was free; a borrower has its lender's. A job that runs
  // beside the limit has a number of its own, too. -1 for a job without a slot.
  i32 SlotOf(Ticket ticket) const;
  u32 CountRunning() const;
  u32 CountWaiting() const;

 private:
  struct Job {
    u32 processId = 0;
    u64 inputPipe = 0;
    u64 outputPipe = 0;
    bool isGranted = false;
    bool isBeyond = false;  // runs beside the limit: no slot is free when it ends
    i32 slot = -1;
    Ticket lender = 0;             // 0: owns its slot
    Ticket borrower = 0;           // 0: its slot is not lent
    std::vector<u32> ancestors{};  // of a waiting job: process ids, the nearest first
  };

  bool AskFor(Ticket ticket, const Job& asked, u32 lowest);
  std::vector<u32> AncestorsOf(u32 processId) const;
  bool TryGrant(Job& job, Ticket ticket);
  void Grant(Job& job, Ticket ticket);
  i32 TakeLowestSlot();
  bool SharesPipe(const Job& job) const;
  Ticket FindLender(const Job& job) const;
  bool Remove(Ticket ticket);
  std::vector<Ticket> GrantWaiting(bool areLendersNew);
  void Tell(const std::vector<Ticket>& granted);

  const ParentOf parentOf_;
  Listener listener_;

  mutable std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by lock_.
  u32 free_;
  u64 generation_ = 0;
  Ticket lastTicket_ = 0;
  bool isStopped_ = false;
  std::map<Ticket, Job> jobs_;
  // Of granted jobs: their processes, and how many have a pipe as input or output.
  std::map<u32, Ticket> jobOfProcess_;
  std::map<u64, u32> inputs_;
  std::map<u64, u32> outputs_;
  std::set<i32> usedSlots_;
  std::deque<Ticket> waiting_;
};

// Holds a slot while one of the master's own threads runs a tool. With null for the slots there is no limit, and each
// job counts as granted.
class HeldJobSlot {
 public:
  // Waits until the slot is granted, or the slots are stopped. See AskAndWait for the client.
  HeldJobSlot(JobSlots* slots, u32 clientProcess)
      : slots_(slots),
        ticket_(slots != nullptr ? slots->NewTicket() : 0),
        isGranted_(!slots || slots->AskAndWait(ticket_, clientProcess)) {}
  ~HeldJobSlot() {
    if (slots_ != nullptr && isGranted_) slots_->Leave(ticket_);
  }
  HeldJobSlot(const HeldJobSlot&) = delete;
  HeldJobSlot& operator=(const HeldJobSlot&) = delete;

  bool IsGranted() const { return isGranted_; }
  // -1 without a limit.
  i32 GetNumber() const { return slots_ != nullptr ? slots_->SlotOf(ticket_) : -1; }
  // Lets descendants of the process borrow the slot.
  void SetProcess(u32 processId) {
    if (slots_ != nullptr) slots_->SetProcess(ticket_, processId);
  }

 private:
  JobSlots* const slots_;
  const JobSlots::Ticket ticket_;
  const bool isGranted_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_JOB_SLOTS_H_
