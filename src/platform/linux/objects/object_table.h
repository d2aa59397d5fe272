// The table of the named objects of one folder: a file that every process of the user maps.
//
// Making, opening and closing an object is work in that memory; system calls are needed only to test whether the file
// still exists and whether other processes live. This class enters the table and keeps this process's holds and pins:
//
//   object_layout.h   what lies in the file, and its version
//   process_slots.h   which processes use the table
//   object_slots.h    the slots of the objects, their phases, holds and pins
//   object_sweep.h    what killed processes left
//
// A process that enters a table which no living process uses starts it anew. A table stays mapped until the process
// ends. All functions may be called from any thread.
//
// If a process is stopped while it holds the gate or the mutex of a bucket, another process waits for 5 s once, and for
// 50 ms each time after that. Its calls then fail with ERROR_TIMEOUT, after a line on the standard error stream that
// names the stopped process and the folder.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_TABLE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_TABLE_H_

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/object.h"
#include "platform/linux/objects/object_layout.h"
#include "platform/linux/objects/object_slots.h"
#include "platform/linux/objects/process_slots.h"

namespace kestrun::platform {

class ObjectTable {
 public:
  // Called once while no other thread or process can see the new object, whose header is zero but for kind, name and
  // size.
  using Initialise = std::function<void(ObjectHeader&)>;

  struct Request {
    ObjectKind kind;
    std::string_view name;
    std::uint64_t dataSize = 0;
    const Initialise* initialise = nullptr;  // null: only an object that exists
  };

  // One hold and one pin.
  struct Found {
    unsigned slot = 0;
    bool existed = false;
    std::shared_ptr<ObjectHeader> memory;  // the pin, which may outlive the hold
    FileDescriptor data;                   // of a mapping
  };

  // The table of the folder; another one once the folder was removed. Null with the last error.
  static ObjectTable* Current();

  // False with the last error.
  bool Find(const Request& request, Found* found);
  // Gives a hold back. The object is gone if it was the last.
  void Release(unsigned slot);
  // True if there is a hold on it beside the caller's, in this process or in another that lives.
  bool IsHeldElsewhere(unsigned slot);

  // Reclaims what dead processes left, unless another process keeps the gate. Gives the number of object slots and
  // process slots that are free again.
  int Sweep();

  HubWord* hubs() { return layout_.hubs; }
  // True if no other process had the hub; it is this process's until it ends.
  bool ClaimHub(unsigned hub) const { return processes_.ClaimHub(hub); }

  ~ObjectTable();

 private:
  // The holds and pins of this process on one object.
  struct Counts {
    unsigned holds = 0;
    unsigned pins = 0;
  };
  // The process counts as having marks for as long as one of these lives.
  class Visit;
  class BucketLock;

  ObjectTable(FileDescriptor file, ObjectLayout& layout);

  static ObjectTable* Enter();
  bool IsRemoved() const;
  bool Join(std::size_t fileSize);
  bool ClaimProcessSlot();

  bool OpenObject(const Request& request, unsigned slot, Found* found);
  bool MakeObject(const Request& request, unsigned bucket, Found* found);
  bool MakeData(unsigned slot, std::uint64_t size, FileDescriptor* data);

  void AddUse();
  void DropUse();
  void Hold(unsigned slot);
  std::shared_ptr<ObjectHeader> Pin(unsigned slot);
  void Unpin(unsigned slot);

  const FileDescriptor file_;
  ObjectLayout& layout_;
  ProcessSlots processes_;
  ObjectSlots slots_;

  // Buckets whose last wait timed out. The next wait for such a bucket has the short limit.
  std::array<std::atomic<bool>, kObjectBuckets> isStuck_{};

  // Taken after a bucket's mutex.
  std::mutex lock_;
  std::map<unsigned, Counts> own_;  // guarded by lock_; by slot
  unsigned uses_ = 0;               // guarded by lock_; the number of visits and pins
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_TABLE_H_
