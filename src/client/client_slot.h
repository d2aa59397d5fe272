// Admission: a client's slot among those that its master grants at one time.
#ifndef KESTRUN_CLIENT_CLIENT_SLOT_H_
#define KESTRUN_CLIENT_CLIENT_SLOT_H_

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "protocol/place_table.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/mapped_file.h"
#include "runtime/threads/sync.h"

namespace kestrun {

// Asks for a slot, waits until it is granted, and gives it back when the object is destroyed.
//
// If the master keeps a table of clients, the request is written there and the master grants the slot; the master also
// reclaims the slot of a client that was killed. Without a table, or if the table is full, the client takes its slot
// from the master's semaphore directly. One thread at a time uses the object.
class ClientSlot {
 public:
  enum class Outcome { kAdmitted, kTimeOver, kMasterGone };

  ClientSlot() = default;
  ~ClientSlot();
  ClientSlot(const ClientSlot&) = delete;
  ClientSlot& operator=(const ClientSlot&) = delete;

  // False if there is no master. A master that died while its other clients keep its objects open is recognised only
  // with `usesTable`, which tells whether to look for a table.
  bool Open(const std::string& id, bool usesTable);
  // The same for a table alone, without a semaphore behind it. False if there is none, or if it is full. `noteText` is
  // passed to the master (ToolNote).
  bool OpenTable(const std::string& id, std::string_view noteText);
  // After OpenTable: how the tool has ended, for the master. Sizes and times are -1 where they are not known.
  void NoteEnd(i32 exitCode, std::int64_t cpuUs, std::int64_t peakMemoryBytes);
  // May be called again after kTimeOver; the request stays queued meanwhile. The end of the master is seen only with a
  // table, within a second.
  Outcome Wait(u32 timeoutMs);

 private:
  // The entry in the master's table, and what is needed to follow it.
  struct Request {
    std::unique_ptr<MappedFile> region;
    rc_ptr<MappedFile::ViewImpl> view;
    UniqueHandle call;
    UniqueHandle keeper;
    UniqueHandle answer;
    std::unique_ptr<MappedFile> noteRegion;
    rc_ptr<MappedFile::ViewImpl> noteView;  // null without a note
    std::atomic<u64>* entry = nullptr;
    u64 word = 0;  // as it was when the client asked
  };
  // A request that is entered in the table, or null.
  static std::unique_ptr<Request> MakeRequest(const std::string& id, std::string_view noteText);
  static void WriteNote(const std::string& id, std::string_view text, Request& request);
  static bool TakeEntry(Request& request);
  bool IsGranted() const;

  UniqueHandle access_;
  bool isAdmitted_ = false;           // by the semaphore; the table's entry tells for itself
  std::unique_ptr<Request> request_;  // null: the semaphore is used directly
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_CLIENT_SLOT_H_
