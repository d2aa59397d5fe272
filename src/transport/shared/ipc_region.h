// One end's view of a named region of shared memory with two rings: the one that this end reads and the one that it
// writes.
//
//   offset  ring          written by        read by
//   0       <name>.c2s    connecting end    accepting end
//   65536   <name>.s2c    accepting end     connecting end
//
// The accepting end creates the region, the connecting end opens it. Either end may open or create another region with
// the same object afterwards; the first one is left then.
//
// Owns the mapping, the rings and their kernel objects, which exist as long as some process has them open.
//
// Threads: one reader and one writer at a time, which may be different threads. Close may be called from any thread at
// any time and ends blocked calls. IsPeerGone, GetAttachCount and GetAttachTotal wait for neither reader nor writer.
//
// Failure: Create and Open give false if the region can't be made or opened, and throw SyncException if a kernel object
// can't be. Without a region everything else moves no bytes and gives 0 or false.
#ifndef KESTRUN_TRANSPORT_SHARED_IPC_REGION_H_
#define KESTRUN_TRANSPORT_SHARED_IPC_REGION_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/mapped_file.h"
#include "transport/shared/ipc_ring.h"

namespace kestrun {

class IpcRegion {
 public:
  struct Result {
    u32 count = 0;          // bytes moved
    bool isUsable = false;  // false if the ring is unusable (IpcRing::IsUnusable) or there is no region
  };

  IpcRegion() = default;
  ~IpcRegion() { Close(); }
  IpcRegion(const IpcRegion&) = delete;
  IpcRegion& operator=(const IpcRegion&) = delete;

  // False if the name is in use.
  bool Create(const std::string& name);
  // False if there is no such region, or one of another shape.
  bool Open(const std::string& name);
  // Leaves the region without waking the peer. Not while a read or a write is blocked.
  void Leave();
  // Ends a blocked Read or Write, leaves the region and wakes the peer.
  void Close();

  // True until Close or Leave has begun.
  bool IsOpen() const { return isOpen_; }
  // Constant once created or opened, as is the next one.
  const std::string& GetName() const { return name_; }
  // True if this end has created a region.
  bool IsOwner() const { return isOwner_; }

  // As IpcRing::Read and IpcRing::Write, on the ring of that direction.
  Result Read(void* target, u32 length, u32 timeoutMs);
  Result Write(const void* source, u32 length, u32 timeoutMs);

  // Runs step(input, output) under the locks of both rings, .c2s first, and wakes the peer's reader if that gives true.
  // False also if a lock timed out. The step waits for nothing.
  using Step = std::function<bool(IpcRing& input, IpcRing& output)>;
  bool RunLocked(u32 lockTimeoutMs, const Step& step);

  // Bytes that can be read without a wait.
  u32 GetAvailable();
  // The same without the ring's lock: the answer may already be out of date. True without a region.
  bool SeemsReadable();
  // Bytes that can be written without a wait.
  u32 GetRoom();

  // The event that is set when there is something to read. False without a region.
  bool GetReadEvent(HANDLE& event);
  void WakeReader();
  // Wakes the reader once a lock that had timed out can be taken again: the peer does not announce its bytes twice.
  // False if the ring is unusable.
  bool RecoverReader();
  // True if the lock of the ring that this end reads has timed out.
  bool HasLockTimedOut();
  // As IpcRing::RepairHeader, of both rings.
  void RepairHeaders();

  // True if no other process has the region open.
  bool IsPeerGone();
  // Ends attached to .c2s now, and how often an end has attached to the ring that this end reads.
  u32 GetAttachCount();
  u32 GetAttachTotal();

 private:
  bool Map(const std::string& name, u32 size, bool isNew);
  void SetRings(std::unique_ptr<IpcRing> input, std::unique_ptr<IpcRing> output);
  void Interrupt();
  void Detach();

  std::string name_;
  bool isOwner_ = false;
  std::atomic<bool> isOpen_{false};

  // The locks are taken in this order. The pointers to the rings change under all three. A ring is read or written
  // under its own lock, inputLock_ or outputLock_, which a blocked reader or writer holds while it waits. Calls that
  // must not wait for that take ringsLock_ alone, which is never held during a wait.
  CriticalSection inputLock_;
  CriticalSection outputLock_;
  CriticalSection ringsLock_;
  std::unique_ptr<MappedFile> file_;
  rc_ptr<MappedFile::ViewImpl> view_;
  std::unique_ptr<IpcRing> input_;
  std::unique_ptr<IpcRing> output_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_IPC_REGION_H_
