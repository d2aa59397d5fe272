// Serves the clients that observe a master's jobs.
#ifndef KESTRUN_MASTER_JOB_OBSERVERS_H_
#define KESTRUN_MASTER_JOB_OBSERVERS_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "master/job_journal.h"
#include "messaging/message_channel.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// An observer is a client without a client slot. It sends MSG_OBSERVE and gets MSG_JOURNAL (docs/protocol.md). Records
// are only sent to an observer that has taken what it was sent before: a slow observer delays nothing, and takes the
// memory of one message beside the journal's own bound. The number of observers is limited to the channels that are
// left beside the client slots.
//
// Threads: "Observers", from the first request on, sends all records and samples memory and processor time of the
// running processes. It sleeps while no observer follows, and while all of them have received everything and no job
// runs or waits. OnRequest and OnGone come on the message thread.
class JobObservers {
 public:
  static constexpr u32 kMostObservers = 16;
  // Bytes of records in one message.
  static constexpr std::size_t kMostBytes = 32 * 1024;

  // Memory and processor time of a process and those below it; see platform::UsageOfTree.
  using UsageOf = platform::ProcessUsage (*)(u32 processId);

  // Journal and dispatcher outlive this object.
  JobObservers(JobJournal& journal, MessageDispatcher& dispatcher, u32 mostObservers, UsageOf usageOf);
  // Stops.
  ~JobObservers();
  JobObservers(const JobObservers&) = delete;
  JobObservers& operator=(const JobObservers&) = delete;

  void OnRequest(const rc_ptr<Message>& request);
  void OnGone(const Address& client);
  // Ends the thread and closes the observers' channels, so that the end of the master does not wait for an observer
  // that does not read. From any thread, also more than once.
  void Stop();

 private:
  // What a client has asked for since the thread last served it.
  struct Wishes {
    bool snapshot = false;
    bool follow = false;
    bool flush = false;
    u32 process = 0;
  };
  // Used by the thread only.
  struct Follower {
    JobJournal::Observer observer = 0;
    u64 flushAt = 0;  // the number of the change up to which the flush sends records
    bool isFlushing = false;
  };

  bool Admit(const Address& client);
  void Refuse(const Address& client);
  void Work();
  u32 GetIntervalMs();
  void ServeWishes();
  void Serve(const Address& client, const Wishes& wishes);
  void PushAll();
  // False once the client has gone.
  bool Push(const Address& client, Follower& follower);
  void Sample();
  void DropGone();
  void CloseAll();

  JobJournal& journal_;
  MessageDispatcher& dispatcher_;
  const u32 mostObservers_;
  const UsageOf usageOf_;
  Condition call_;  // wishes, losses, or the end

  CriticalSection lock_;
  // Guarded by lock_.
  std::map<Address, Wishes> wishes_;
  std::set<Address> observers_;
  std::set<Address> gone_;
  bool isStopped_ = false;
  rc_ptr<Thread> thread_;  // null before the first request

  // Owned by the thread.
  std::map<Address, Follower> followers_;
  std::int64_t sampledUs_ = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_JOB_OBSERVERS_H_
