// Grants job slots to clients that run their tools themselves.
#ifndef KESTRUN_MASTER_SLOT_SERVER_H_
#define KESTRUN_MASTER_SLOT_SERVER_H_

#include <map>
#include <memory>
#include <string>

#include "master/job_journal.h"
#include "master/job_slots.h"
#include "platform/local_stream.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// With Extensions/TransparentTools a client asks here for a slot (protocol/slot_request.h), is answered once JobSlots
// grants it one, and becomes its tool. The slot is free again when that process has ended, in whatever way. A waiting
// client delays no other one, and costs the master two descriptors.
//
// Threads: one, "Slot server". Grants come from any thread that frees a slot.
class SlotServer : private platform::LocalServer::Handler {
 public:
  // Throws SyncException, with the cause, if clients could not reach it. Slots and journal outlive this object, which
  // becomes the listener of the slots.
  SlotServer(const std::string& id, JobSlots& slots, JobJournal& journal);
  // Ends the thread. Clients that wait lose their connection, which tells them that there is no master.
  ~SlotServer();
  SlotServer(const SlotServer&) = delete;
  SlotServer& operator=(const SlotServer&) = delete;

  // Tells waiting clients, and those that come later, that the master stops and that they are to run nothing. From any
  // thread.
  void Refuse();

 private:
  using Client = platform::LocalServer::Client;

  bool OnClient(Client client, u32 processId, bool seesEnd, const char* data, std::size_t size) override;
  void OnGone(Client client, const std::function<platform::ProcessEnd()>& readEnd) override;
  void OnGranted(JobSlots::Ticket ticket);
  void Serve();

  struct Job {
    u64 number = 0;  // in the journal
    rc_ptr<OwnedJobText> text;
    u32 startedAt = 0;  // by the tick count, once it is granted
    bool isWaiting = true;
    bool keepsOpen = false;  // the end of the connection is the only sign of the process's end
  };

  void LogEnd(const Job& job, u32 elapsedMs) const;

  JobSlots& slots_;
  JobJournal& journal_;
  std::unique_ptr<platform::LocalServer> server_;
  CriticalSection lock_;
  bool isRefusing_ = false;     // guarded by lock_
  std::map<Client, Job> jobs_;  // guarded by lock_
  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_SLOT_SERVER_H_
