// Gives places to clients and takes them back from those that died.
#ifndef KESTRUN_MASTER_PLACE_KEEPER_H_
#define KESTRUN_MASTER_PLACE_KEEPER_H_

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "protocol/place_table.h"
#include "runtime/handle.h"
#include "runtime/mapped_file.h"
#include "runtime/rc_ptr.h"
#include "runtime/sync.h"
#include "runtime/thread.h"

namespace kestrun {

// The semaphore can't tell who holds its places, and a client that took one is killed before it can say so. So here the
// master does the taking: a client asks in a table that all share, and this object's thread takes a place from the
// semaphore for it, and gives that back when the client says so or is gone. Whatever a client does and whenever it
// dies, the thread's own record tells whether a place was taken for it, and each is given back once.
//
// Clients that know of no table take their places from the same semaphore as ever; nothing is known of those here, and
// nothing is taken from them. Clients are served in the order in which they are found.
//
// Threads: one, "Place keeper", which owns the records. Construction and destruction on one thread, which owns the
// mutex by which clients see that the master lives.
class PlaceKeeper {
 public:
  // Makes the semaphore, too. A table that clients of an earlier master of this id still hold is carried on, with the
  // places granted in it. Throws SystemException where the objects can't be had.
  PlaceKeeper(const std::string& id, u32 places);
  ~PlaceKeeper();
  PlaceKeeper(const PlaceKeeper&) = delete;
  PlaceKeeper& operator=(const PlaceKeeper&) = delete;

 private:
  // A slot's client; unused while `client` is null.
  struct Record {
    UniqueHandle client;
    u64 word = 0;  // as the client wrote it
    bool isGranted = false;
  };

  void OpenTable();
  void AdoptGranted();
  void Serve();
  void LookAtSlots();
  void LookForDead();
  // With one place taken from the semaphore.
  void GrantOne();
  bool Enter(u32 slot, u64 word);
  void Leave(u32 slot);

  const std::string id_;
  Mutex keeper_;
  // After the mutex: a client that finds the semaphore and a mutex that nobody owns takes the master for dead.
  std::unique_ptr<Semaphore> access_;
  Condition call_;
  Condition end_;
  std::unique_ptr<MappedFile> region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  PlaceTable* table_ = nullptr;

  // The thread's own.
  std::vector<Record> records_{PlaceTable::kSlots};
  std::deque<u32> waiting_;  // slots of clients that ask, in the order of their finding
  u32 clients_ = 0;          // records in use

  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_PLACE_KEEPER_H_
