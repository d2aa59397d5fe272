// Which processes use an object table, and the locks on the bytes of its file that tell (object_layout.h).
//
// A process has one process slot in each table that it enters, and keeps the slot's byte locked as long as it lives.
// The number of its slot stands wherever it has marked an object. While it may have marks, its flag `hasMarks` is set.
// A slot whose flag is set and whose byte is not locked is stale: its process was killed, and no other process gets the
// slot until a sweep has removed the marks. So the lock of a slot always tells about the process that has made the
// slot's marks.
//
// Locks belong to the open file description, which a forked child shares: between fork and exec nothing of this layer
// may be called. All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SLOTS_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SLOTS_H_

#include "platform/api/base_api.h"
#include "platform/linux/objects/object_layout.h"

namespace kestrun::platform {

// The lock that excludes other processes from entering or sweeping the table of that file. The constructor waits for
// it, `limitMs` at most. False with errno: ETIMEDOUT if the limit has passed, and another value where the file system
// or a sandbox has no such locks.
class TableGate {
 public:
  TableGate(int file, DWORD limitMs);
  ~TableGate();
  TableGate(const TableGate&) = delete;
  TableGate& operator=(const TableGate&) = delete;
  explicit operator bool() const { return isHeld_; }

 private:
  const int file_;
  const bool isHeld_;
};

class ProcessSlots {
 public:
  // Borrows both, which must outlive this object.
  ProcessSlots(int file, ObjectLayout& layout) : file_(file), layout_(layout) {}

  // True if any process uses the table. Call it before Claim, under the gate.
  bool AnyIsAlive() const;
  // Takes a free slot that is not stale; under the gate. False if there is none.
  bool Claim();
  // The slot of this process.
  unsigned own() const { return own_; }
  bool IsAlive(unsigned process) const;
  bool IsStale(unsigned process) const { return layout_.hasMarks[process].load() != 0 && !IsAlive(process); }

  // True if no other process had the hub; it is this process's until it ends.
  bool ClaimHub(unsigned hub) const;

 private:
  const int file_;
  ObjectLayout& layout_;
  unsigned own_ = kMaxProcesses;  // constant once claimed
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_PROCESS_SLOTS_H_
