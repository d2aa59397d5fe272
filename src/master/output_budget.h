// The bound on output that the master holds in memory: what it collects from tools, and what their clients have not
// taken yet.
#ifndef KESTRUN_MASTER_OUTPUT_BUDGET_H_
#define KESTRUN_MASTER_OUTPUT_BUDGET_H_

#include <condition_variable>
#include <mutex>

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

// Adds up the output of all jobs. While the sum is over the limit, each tool's output is sent to its client at once,
// and the tool waits while more than kFreeBytes of it are on their way. So a client that does not read delays its own
// tool only, and the sum exceeds the limit by at most some megabytes a tool.
//
// Reference-counted: the account of each job holds the budget, and the job's output holds its account. Any thread; the
// one lock is held for a few additions.
class OutputBudget : public rc_base {
 public:
  static constexpr u64 kFreeBytes = 1 << 20;

  explicit OutputBudget(u64 limit) : limit_(limit) {}

  // No tool waits from now on.
  void Lift();

  bool IsExceeded();
  u64 GetSum();

  // The output of one job.
  class Account : public rc_base {
   public:
    explicit Account(const rc_ptr<OutputBudget>& budget) : budget_(budget) {}

    // What is collected of stream 0 or 1 at present.
    void SetCollected(u32 stream, u64 bytes);
    // AddSent counts output on its way to the client; RemoveSent, output that was taken or dropped.
    void AddSent(u64 bytes);
    void RemoveSent(u64 bytes);
    // True while the tool has to wait for its client.
    bool MustWait();
    // Waits for at most that long, or until it need not wait any more.
    void AwaitRoom(u32 limitMs);

    OutputBudget& GetBudget() { return *budget_; }

   private:
    bool MustWaitLocked() const;

    const rc_ptr<OutputBudget> budget_;
    // Guarded by the budget's lock.
    u64 collected_[2] = {};
    u64 sent_ = 0;
  };

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by lock_.
  u64 limit_;
  u64 sum_ = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_OUTPUT_BUDGET_H_
