#include "master/job_observers.h"

#include <algorithm>
#include <utility>

#include "messaging/served_ipc_channel.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"

namespace kestrun {

namespace {

// The interval at which changes are sent: a display needs no more, and a job that starts and ends within it is one
// record.
constexpr u32 kPushMs = 100;
// The interval while an observer waits for the answer to a flush.
constexpr u32 kFlushMs = 5;
constexpr std::int64_t kSampleUs = 250000;
// The number of messages that one observer is sent before the others are served.
constexpr int kMostMessages = 16;

bool HasUnsent(const rc_ptr<MessageChannel>& channel) {
  auto* const served = dynamic_cast<ServedIpcChannel*>(channel.Get());
  return served != nullptr && served->HasUnsent();
}

rc_ptr<Message> MakeMessage(JournalState state, bool isLast, const std::string& jobs) {
  state.isLast = isLast ? 1 : 0;
  const std::string bytes = EncodeState(state);
  rc_ptr<Message> message = new Message(MSG_JOURNAL, kMasterService, kStubService);
  message->AddString(SEG_JOURNAL_STATE, bytes).AddString(SEG_JOURNAL_JOBS, jobs);
  return message;
}

}  // namespace

JobObservers::JobObservers(JobJournal& journal, MessageDispatcher& dispatcher, u32 mostObservers, UsageOf usageOf)
    : journal_(journal), dispatcher_(dispatcher), mostObservers_(mostObservers), usageOf_(usageOf) {
  journal_.SetListener([this] { call_.Signal(); });
}

JobObservers::~JobObservers() {
  Stop();
  journal_.SetListener(nullptr);
}

void JobObservers::OnRequest(const rc_ptr<Message>& request) {
  const MessageReader reader(request);
  u32 kind = 0;
  u32 process = 0;
  if (!reader.ReadUnsigned(SEG_OBSERVE_KIND, kind)) return;
  reader.ReadUnsigned(SEG_OBSERVE_PROCESS, process);
  const Address& client = request->GetAddress();
  if (!Admit(client)) return Refuse(client);
  // Requests are added up, so that a client that repeats them takes no memory.
  {
    const Lock lock(lock_);
    Wishes& wishes = wishes_[client];
    wishes.snapshot |= kind == OBSERVE_SNAPSHOT;
    wishes.follow |= kind == OBSERVE_FOLLOW;
    wishes.flush |= kind == OBSERVE_FLUSH;
    if (process != 0) wishes.process = process;
  }
  call_.Signal();
}

bool JobObservers::Admit(const Address& client) {
  const Lock lock(lock_);
  if (observers_.contains(client)) return true;
  if (isStopped_ || observers_.size() >= mostObservers_) return false;
  if (!thread_) {
    rc_ptr<Thread> thread = new Thread("Observers");
    if (!thread->Start(MakeDelegate(&JobObservers::Work, this))) return false;
    thread_ = thread;
  }
  observers_.insert(client);
  return true;
}

void JobObservers::Refuse(const Address& client) {
  const rc_ptr<MessageChannel> channel = dispatcher_.FindChannel(client);
  if (!channel) return;
  rc_ptr<Message> refusal = new Message(MSG_JOURNAL, kMasterService, kStubService);
  refusal->AddString(SEG_REFUSAL, "the master has no room for another observer");
  channel->Send(refusal);
  dispatcher_.CloseChannel(channel);
}

void JobObservers::OnGone(const Address& client) {
  {
    const Lock lock(lock_);
    if (observers_.erase(client) == 0) return;
    wishes_.erase(client);
    gone_.insert(client);
  }
  call_.Signal();
}

void JobObservers::Stop() {
  rc_ptr<Thread> thread;
  {
    const Lock lock(lock_);
    isStopped_ = true;
    thread.Swap(thread_);
  }
  if (!thread) return;
  call_.Signal();
  // Without the lock, which the thread takes.
  thread->Wait(kNoLimit);
  CloseAll();
}

void JobObservers::CloseAll() {
  std::set<Address> observers;
  {
    const Lock lock(lock_);
    observers.swap(observers_);
  }
  for (const Address& client : observers) dispatcher_.CloseChannel(dispatcher_.FindChannel(client));
}

void JobObservers::Work() {
  for (;;) {
    call_.Wait(GetIntervalMs());
    {
      const Lock lock(lock_);
      if (isStopped_) break;
    }
    DropGone();
    ServeWishes();
    PushAll();
    Sample();
  }
  for (const auto& [client, follower] : followers_) journal_.Leave(follower.observer);
  followers_.clear();
}

// How long the thread sleeps. With no limit, it is woken by a request, the loss of an observer, or the next job.
u32 JobObservers::GetIntervalMs() {
  const bool isFlushing = std::any_of(followers_.begin(), followers_.end(),
                                      [](const auto& follower) { return follower.second.isFlushing; });
  if (isFlushing) return kFlushMs;
  return followers_.empty() || journal_.Rest() ? kNoLimit : kPushMs;
}

void JobObservers::DropGone() {
  std::set<Address> gone;
  {
    const Lock lock(lock_);
    gone.swap(gone_);
  }
  for (const Address& client : gone) {
    const auto found = followers_.find(client);
    if (found == followers_.end()) continue;
    journal_.Leave(found->second.observer);
    followers_.erase(found);
  }
}

void JobObservers::ServeWishes() {
  std::map<Address, Wishes> wishes;
  {
    const Lock lock(lock_);
    wishes.swap(wishes_);
  }
  for (const auto& [client, wish] : wishes) Serve(client, wish);
}

void JobObservers::Serve(const Address& client, const Wishes& wishes) {
  if (wishes.follow && !followers_.contains(client)) followers_[client].observer = journal_.Join(wishes.process);
  const auto found = followers_.find(client);
  if (wishes.flush && found != followers_.end()) {
    found->second.isFlushing = true;
    found->second.flushAt = journal_.GetLatest();
  }
  if (!wishes.snapshot) return;
  const rc_ptr<MessageChannel> channel = dispatcher_.FindChannel(client);
  // An observer that has not read the last snapshot gets no other one meanwhile.
  if (!channel || HasUnsent(channel)) return;
  channel->Send(MakeMessage(journal_.GetState(0), true, journal_.Snapshot(kMostBytes)));
}

void JobObservers::PushAll() {
  for (auto next = followers_.begin(); next != followers_.end();) {
    if (Push(next->first, next->second)) {
      ++next;
    } else {
      journal_.Leave(next->second.observer);
      next = followers_.erase(next);
    }
  }
}

bool JobObservers::Push(const Address& client, Follower& follower) {
  const rc_ptr<MessageChannel> channel = dispatcher_.FindChannel(client);
  if (!channel) return false;
  for (int count = 0; count < kMostMessages && !HasUnsent(channel); ++count) {
    u64 position = 0;
    const std::string jobs = journal_.Take(follower.observer, kMostBytes, position);
    // A flush is answered even if there is no new record, because the observer waits for the answer.
    const bool isFlushed = follower.isFlushing && position >= follower.flushAt;
    if (jobs.empty() && !isFlushed) return true;
    if (isFlushed) follower.isFlushing = false;
    if (!channel->Send(MakeMessage(journal_.GetState(follower.observer), isFlushed, jobs))) return false;
  }
  return true;
}

void JobObservers::Sample() {
  if (followers_.empty() || SteadyMicroseconds() - sampledUs_ < kSampleUs) return;
  for (const auto& [number, process] : journal_.GetRunning()) journal_.AddSample(number, usageOf_(process));
  sampledUs_ = SteadyMicroseconds();
}

}  // namespace kestrun
