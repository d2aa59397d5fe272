// Grants client slots, and reclaims those of clients that died.
#ifndef KESTRUN_MASTER_PLACE_KEEPER_H_
#define KESTRUN_MASTER_PLACE_KEEPER_H_

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "master/job_journal.h"
#include "master/job_slots.h"
#include "protocol/place_table.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/mapped_file.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// A semaphore does not record which processes hold its counts, and a client that takes one can be killed before it
// writes that down. So the master takes them: a client enters a request in a shared table, this object's thread takes a
// count from the semaphore for it and grants the slot, and gives the count back when the client returns the slot or is
// gone. The thread's own record tells whether a count was taken for a client, so that each is given back exactly once,
// at whatever moment the client dies.
//
//   entry in the table    written by          the thread's record, and what the thread does
//   0                     either              none; a record of a client that stood here ends
//   asking                client, from 0      makes a record and takes a count, then writes "granted"
//   granted               master, from asking kept until the client returns the slot or is gone
//   returned              client, from granted ends; the count is given back and the entry becomes 0
//
// Both sides change an entry by compare-and-exchange of the whole word, which names the client: a step that comes too
// late, for a client that has given up or been replaced, changes nothing.
//
// Clients that use no table take their slots from the same semaphore; they are not recorded here, and theirs are not
// reclaimed. Requests are granted in the order in which they are found.
//
// Threads: "Place keeper" owns the records. The object is made and destroyed on one thread, which owns the mutex by
// which clients see that the master is alive.
class PlaceKeeper {
 public:
  // Makes the semaphore, too, with `places` counts. A table that clients of an earlier master of this id keep open is
  // taken over, with the slots granted in it. Throws SystemException if one of the objects can't be made.
  PlaceKeeper(const std::string& id, u32 places);
  // Grants job slots instead of client slots, by the same kind of table under an id of its own. Slots and journal
  // outlive this object, which becomes the listener of the slots. The journal may be null.
  PlaceKeeper(const std::string& id, JobSlots& slots, JobJournal* journal = nullptr);
  ~PlaceKeeper();
  PlaceKeeper(const PlaceKeeper&) = delete;
  PlaceKeeper& operator=(const PlaceKeeper&) = delete;

 private:
  PlaceKeeper(const std::string& id, u32 places, JobSlots* slots, JobJournal* journal);

  // The client of a table entry; unused while `client` is null.
  struct Record {
    UniqueHandle client;
    u64 word = 0;  // as the client wrote it
    bool isGranted = false;
    u64 number = 0;  // in the journal; 0: in none
    // The client's ToolNote; null if it has none.
    std::unique_ptr<MappedFile> noteRegion;
    rc_ptr<MappedFile::ViewImpl> noteView;
  };

  void OpenTable();
  void AdoptGranted(u32 places);
  void Serve();
  void ReadTable();
  void ReclaimDead();
  // Grants the slot for which a count was taken from the semaphore, or gives the count back.
  void GrantOne();
  void Ask(u32 slot);
  void GiveBack(u32 slot);
  bool Grant(u32 slot);
  // From any thread: queues the ticket and wakes the thread, which owns the records.
  void OnGranted(JobSlots::Ticket ticket);
  void GrantTickets();
  bool Enter(u32 slot, u64 word);
  void Leave(u32 slot);
  void AddToJournal(Record& record);
  void FinishInJournal(Record& record);

  const std::string id_;
  JobSlots* const slots_;      // null: client slots are granted, from the semaphore
  JobJournal* const journal_;  // may be null
  Mutex keeper_;
  // Made after the mutex: a client that finds the semaphore and an unowned mutex takes the master for dead.
  std::unique_ptr<Semaphore> access_;
  Condition call_;
  Condition end_;
  std::unique_ptr<MappedFile> region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  PlaceTable* table_ = nullptr;

  // Owned by the thread.
  std::vector<Record> records_{PlaceTable::kSlots};
  std::deque<u32> waiting_;  // table entries with a request, in the order in which they were found
  u32 clients_ = 0;          // records in use

  std::mutex ticketsLock_;
  std::deque<JobSlots::Ticket> tickets_;  // guarded by ticketsLock_: granted, and not yet passed on

  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_PLACE_KEEPER_H_
