#ifndef KESTRUN_MASTER_JOB_OUTPUT_H_
#define KESTRUN_MASTER_JOB_OUTPUT_H_

#include "master/build_job.h"
#include "master/output_budget.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/memory_stream.h"
#include "runtime/process/output_gate.h"

namespace kestrun {

// Collects the output of one job's tool, from its pipes to the result message.
//
// Output is held until the tool has ended. Only while the budget is exceeded, it is sent to the client in parts, and
// the tool waits until the client has taken them; without a client it is dropped. The wait also ends when the job is
// cancelled or its time limit is over.
//
// Threads: OnOutput comes from the threads that read; all else belongs to the local build thread, before and after they
// read. The dispatcher outlives the readers.
class JobOutput : public OutputGate {
 public:
  // With `isKept` the job's record keeps the content of the result, which so can't count in the budget.
  JobOutput(const rc_ptr<OutputBudget>& budget, BuildJob& job, MessageDispatcher& dispatcher, bool isKept);
  ~JobOutput() override;

  // The tool starts now. Its time limit may be kNoLimit.
  void Start(u32 limitMs);

  MemoryStream& GetStdout() { return *streams_[0]; }
  MemoryStream& GetStderr() { return *streams_[1]; }

  void OnOutput(MemoryStream& collected) override;

  // The bytes that the tool has written to both streams so far, sent ones included. Not while the readers run.
  u64 CountBytes() const { return passedOn_[0] + passedOn_[1] + streams_[0]->GetSize() + streams_[1]->GetSize(); }

  // The content of a stream for the result. It counts in the budget until the last message that has it is gone.
  rc_ptr<MemoryStream> TakeStdout() { return Take(0, !isKept_); }
  rc_ptr<MemoryStream> TakeStderr() { return Take(1, !isKept_); }

 private:
  rc_ptr<MemoryStream> Take(u32 stream, bool isCounted);
  void PassOn(u32 stream);
  bool IsOver();

  const rc_ptr<OutputBudget::Account> account_;
  const rc_ptr<BuildJob> job_;
  MessageDispatcher& dispatcher_;
  const bool isKept_;
  u32 limitMs_ = kNoLimit;
  u32 start_ = 0;
  // Each touched by the reader of that stream alone while the tool runs.
  rc_ptr<MemoryStream> streams_[2];
  u32 counted_[2] = {};   // size of the stream when it was last counted
  u64 passedOn_[2] = {};  // bytes that have left the stream for the client
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_JOB_OUTPUT_H_
