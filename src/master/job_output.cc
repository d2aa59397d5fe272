#include "master/job_output.h"

#include "master/result_sender.h"

namespace kestrun {

namespace {

// A stream is counted each time that it has grown by this much, so that most reads do not take the budget's lock.
constexpr u32 kStep = 256 * 1024;
// The interval at which a waiting reader checks for a cancelled job and a lost client, which do not signal the budget.
constexpr u32 kCheckMs = 100;

// Shares the content with its owner, and counts it as sent until the last message that refers to this object is gone.
class SentOutput : public MemoryStream {
 public:
  SentOutput(const rc_ptr<MemoryStream>& content, const rc_ptr<OutputBudget::Account>& account)
      : MemoryStream(content->GetData(), content->GetSize(), true), content_(content), account_(account) {
    account_->AddSent(content_->GetSize());
  }
  ~SentOutput() override { account_->RemoveSent(content_->GetSize()); }

 private:
  const rc_ptr<MemoryStream> content_;
  const rc_ptr<OutputBudget::Account> account_;
};

}  // namespace

JobOutput::JobOutput(const rc_ptr<OutputBudget>& budget, BuildJob& job, MessageDispatcher& dispatcher, bool isKept)
    : account_(new OutputBudget::Account(budget)),
      job_(&job),
      dispatcher_(dispatcher),
      isKept_(isKept),
      streams_{new MemoryStream, new MemoryStream} {}

JobOutput::~JobOutput() {
  for (const u32 stream : {0u, 1u}) account_->SetCollected(stream, 0);
}

void JobOutput::Start(u32 limitMs) {
  limitMs_ = limitMs;
  start_ = GetTickCount();
}

void JobOutput::OnOutput(MemoryStream& collected) {
  const u32 stream = &collected == streams_[0].Get() ? 0 : 1;
  if (collected.GetSize() < counted_[stream] + kStep) return;
  counted_[stream] = collected.GetSize();
  account_->SetCollected(stream, counted_[stream]);
  // The wait is here, on the reader: while it does not read, the pipe fills up, and the system makes the tool wait.
  if (!account_->GetBudget().IsExceeded()) return;
  PassOn(stream);
  while (account_->MustWait() && !IsOver()) account_->AwaitRoom(kCheckMs);
}

rc_ptr<MemoryStream> JobOutput::Take(u32 stream, bool isCounted) {
  MemoryStream& collected = *streams_[stream];
  collected.Seek(0);
  // Growing, the stream has reserved at most as much again as it holds, so the memory is passed on as it is.
  const rc_ptr<MemoryStream> content = collected.TakeContent(collected.GetSize());
  collected.Clear();
  counted_[stream] = 0;
  // Counted as sent before it ceases to count as collected: in between it counts twice, which is safe, and never not at
  // all.
  const rc_ptr<MemoryStream> sent = isCounted ? new SentOutput(content, account_) : content.Get();
  account_->SetCollected(stream, 0);
  return sent;
}

void JobOutput::PassOn(u32 stream) {
  passedOn_[stream] += streams_[stream]->GetSize();
  const rc_ptr<MemoryStream> sent = Take(stream, true);
  const rc_ptr<MemoryStream> nothing = new MemoryStream;
  SendBuildOutput(dispatcher_.FindChannel(job_->clientAddress), stream == 0 ? sent : nothing,
                  stream == 0 ? nothing : sent);
}

// True if waiting for the client is pointless. Without a channel the unsent messages are destroyed, which frees the
// budget, but that may take a moment.
bool JobOutput::IsOver() {
  if (job_->isCancelled || !dispatcher_.FindChannel(job_->clientAddress)) return true;
  return limitMs_ != kNoLimit && GetTickCount() - start_ >= limitMs_;
}

}  // namespace kestrun
