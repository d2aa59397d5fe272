// An observer's end of a connection: a client that is told of a master's jobs and asks for nothing else.
//
// Owns its channel. docs/protocol.md has the order of the messages.
#ifndef KESTRUN_PROTOCOL_JOURNAL_OBSERVER_H_
#define KESTRUN_PROTOCOL_JOURNAL_OBSERVER_H_

#include <memory>
#include <string>
#include <vector>

#include "messaging/ipc_channel.h"
#include "protocol/job_record.h"
#include "protocol/protocol.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

// The content of one message of the master.
struct JournalNews {
  JournalState state;
  std::vector<JobRecord> jobs;  // in the order in which they changed; a job that changes again comes again
  std::string refusal;          // not empty: the master tells this observer nothing, and why
};

// Threads: one that receives, and any that ask. Failures are results.
class JournalObserver {
 public:
  enum class Outcome { kNews, kNothing, kGone };

  // Null if there is no master of this id, or it does not answer within the time for each of the two steps.
  static std::unique_ptr<JournalObserver> Connect(const std::string& id, u32 timeoutMs);

  ~JournalObserver() { channel_->Close(); }
  JournalObserver(const JournalObserver&) = delete;
  JournalObserver& operator=(const JournalObserver&) = delete;

  // Jobs below `process` will be marked with it; 0 for none. False if the master has gone.
  bool Ask(ObserveKind kind, u32 process = 0);
  // Waits for news, at least as long as the limit and at most a second longer. A message that is no news gives kGone as
  // well.
  Outcome Receive(u32 timeoutMs, JournalNews& news);

 private:
  explicit JournalObserver(const rc_ptr<IpcChannel>& channel) : channel_(channel) {}

  const rc_ptr<IpcChannel> channel_;
};

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_JOURNAL_OBSERVER_H_
