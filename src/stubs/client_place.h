#ifndef KESTRUN_STUBS_CLIENT_PLACE_H_
#define KESTRUN_STUBS_CLIENT_PLACE_H_

#include <atomic>
#include <memory>
#include <string>

#include "protocol/place_table.h"
#include "runtime/handle.h"
#include "runtime/mapped_file.h"
#include "runtime/rc_ptr.h"
#include "runtime/sync.h"
#include "runtime/types.h"

namespace kestrun {

// A client's place at its master, from admission to the end of this object, which gives it back.
//
// Where the master keeps a table of places the client asks there and is granted its place by the master, which takes it
// back as well, also from a client that was killed. Otherwise, and when the table is full, the client takes the place
// from the semaphore itself. One thread at a time.
class ClientPlace {
 public:
  enum class Outcome { kAdmitted, kTimeOver, kMasterGone };

  ClientPlace() = default;
  ~ClientPlace();
  ClientPlace(const ClientPlace&) = delete;
  ClientPlace& operator=(const ClientPlace&) = delete;

  // False if there is no master, or none any more (which is seen with a table only). `usesTable`: whether to look for a
  // table.
  bool Open(const std::string& id, bool usesTable);
  // May be called again after kTimeOver; the client keeps its turn meanwhile. That the master has gone is seen only
  // with a table, after a second at most.
  Outcome Wait(u32 timeoutMs);

 private:
  // What there is while the client uses the table.
  struct Request {
    std::unique_ptr<MappedFile> region;
    rc_ptr<MappedFile::ViewImpl> view;
    UniqueHandle call;
    UniqueHandle keeper;
    UniqueHandle answer;
    std::atomic<u64>* slot = nullptr;
    u64 word = 0;  // as it was when the client asked
  };
  // A request that is complete up to the slot, or null.
  static std::unique_ptr<Request> MakeRequest(const std::string& id);
  static bool TakeSlot(Request& request);
  bool IsGranted() const;

  UniqueHandle access_;
  bool isAdmitted_ = false;
  std::unique_ptr<Request> request_;  // null: the semaphore itself
};

}  // namespace kestrun

#endif  // KESTRUN_STUBS_CLIENT_PLACE_H_
