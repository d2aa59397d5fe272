// The table of the named objects of one folder: a file that every process of the user maps.
//
// Making, opening and closing an object is work in that memory and needs no system call but for the looks at the file
// itself and at other processes. The file's bytes serve as locks that the kernel drops when their holder dies, whatever
// way it dies:
//
//   byte 0              the gate: held for a moment by whoever enters the table or sweeps it
//   kHubBytes + n       hub n belongs to the process that has it locked (wait_hub.h)
//   kPlaceBytes + n     place n belongs to the process that has it locked: it lives
//
// Locks go with the open file description, which a forked child shares: between fork and exec nothing of this layer may
// be called.
//
// An object is a slot. It is *held* by the places whose processes have a handle on it, and exists while one of these
// lives; it is *pinned* by those in which a call may still use its memory, and its slot is free for another object when
// no pin is left. A place that a killed process left behind with holds or pins is marked as littered: nobody gets it
// until a sweep has taken them away, so that a lock on a place always speaks for what bears its mark.
//
//   phase of a slot   meaning                                            next
//   free              zero pins                                          claimed, by a compare-and-swap
//   claimed           one process fills or empties it                    live; free
//   live              in the chain of its bucket                         dead
//   dead              out of the chain, still pinned                     claimed, by whoever finds it without pins
//
// A bucket is a chain of slots under a robust mutex. Each change of a chain is one store, and each state in which a
// process can be killed is one that the sweep understands, so the next owner of a dead one's mutex has nothing to mend.
//
// Whoever enters a table in which nobody lives starts it anew. All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECT_TABLE_H_
#define KESTRUN_PLATFORM_LINUX_OBJECT_TABLE_H_

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/linux/file_descriptor.h"
#include "platform/linux/object.h"
#include "platform/linux/process_set.h"
#include "platform/linux/wait_hub.h"
#include "platform/linux/waitable.h"

namespace kestrun::platform {

// The state of an object; of one without a name too, which then lies in the memory of the process.
struct ObjectHeader {
  std::uint32_t kind;
  std::uint32_t parameter;  // event: 1 for manual reset; semaphore: the maximum
  std::uint64_t dataSize;   // of a mapping
  std::uint32_t nameLength;
  char name[268];  // with the mark of its name space
  alignas(64) WaitState state;
  alignas(64) pthread_mutex_t mutex;     // of a mutex
  std::atomic<std::uint32_t> abandoned;  // of a mutex: its owner's thread ended in good order
};

class ObjectTable {
 public:
  // Called once while nobody else can see the new object, whose header is zero but for kind, name and size.
  using Initialise = std::function<void(ObjectHeader&)>;

  struct Request {
    ObjectKind kind;
    std::string_view name;
    std::uint64_t dataSize = 0;
    const Initialise* initialise = nullptr;  // null: only an object that exists
  };

  // What a process has of an object: one hold and one pin.
  struct Found {
    unsigned slot = 0;
    bool existed = false;
    std::shared_ptr<ObjectHeader> memory;  // the pin, which may outlive the hold
    FileDescriptor data;                   // of a mapping
  };

  // The table of the folder; the same one until somebody removes the folder. Null with the last error. A table is never
  // taken away from a process that has entered it.
  static ObjectTable* Current();

  // False with the last error.
  bool Find(const Request& request, Found* found);
  // Gives a hold back. The object is gone if it was the last.
  void Release(unsigned slot);
  // True if there is a hold on it beside the caller's, here or in another process that lives.
  bool IsHeldElsewhere(unsigned slot);

  // Takes away what dead processes left. Gives the number of objects.
  int Sweep();

  HubWord* hubs();
  // A hub that is nobody else's; false if there is none.
  bool ClaimHub(unsigned hub);

 private:
  struct Slot;
  struct Bucket;
  struct Shared;
  enum class Phase : std::uint8_t { kFree = 0, kClaimed = 1, kLive = 2, kDead = 3 };
  // Everything that changes at once when a slot goes from one phase to the next.
  struct SlotState;
  struct Counts {
    unsigned holds = 0;
    unsigned pins = 0;
  };
  // The place counts as littered for as long as one of these lives.
  class Visit;

  ObjectTable(FileDescriptor file, Shared* shared) : file_(std::move(file)), shared_(shared) {}

  static ObjectTable* Enter();
  bool IsRemoved() const;
  void StartAnew();
  bool ClaimPlace();
  int SweepUnderGate();

  bool IsAlive(unsigned place) const;
  bool IsHeld(unsigned slot);
  void AddUse();
  void DropUse();
  void Hold(unsigned slot);
  void Unpin(unsigned slot);
  std::shared_ptr<ObjectHeader> Pin(unsigned slot);

  unsigned Lookup(const Bucket& bucket, std::string_view name) const;
  void Unlink(Bucket& bucket, unsigned slot);
  bool Join(const Request& request, unsigned slot, Found* found);
  bool Make(const Request& request, unsigned bucket, Found* found);
  bool Allocate(unsigned* slot);
  bool ClaimFree(unsigned from, unsigned to, unsigned* slot);
  bool ClaimUnused(unsigned* slot);
  bool IsSwept(unsigned slot, const ProcessSet& dead);
  void Bury(unsigned slot, std::uint32_t generation);
  void Free(unsigned slot);
  std::string DataFile(unsigned slot) const;
  static std::size_t BucketOf(std::string_view name);

  const FileDescriptor file_;
  Shared* const shared_;
  unsigned place_ = 0;

  // Taken after a bucket's mutex.
  std::mutex lock_;
  std::map<unsigned, Counts> own_;  // guarded by lock_
  unsigned uses_ = 0;               // guarded by lock_; visits and pins
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECT_TABLE_H_
