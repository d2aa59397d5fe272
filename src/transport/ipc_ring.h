// One end's view of a byte ring in shared memory: one writer and one reader, usually in two processes.
//
// Owns its handles of the ring's two events and of its mutex; borrows the mapped memory, which must outlive it. The
// named objects are <name>.ne (not empty), <name>.nf (not full) and <name>.lk; whichever end comes first creates them.
//
// Layout, native byte order:
//
//   offset  field
//   0       u32 capacity: size of the data area
//   4       u32 write index, moved by the writer only
//   8       u32 read index, moved by the reader only
//   12      u16 attach count: ends attached now
//   14      u16 detach generation: detachments so far
//   16      the data
//
// Equal indices mean empty, and one byte always stays free. The indices are guarded by the mutex across processes; the
// count and the generation change without it. What lies between the indices is the reader's and the rest is the
// writer's, so all but small blocks are copied without the mutex, and the index moves after each piece.
//
// The memory can be written by the process at the other end, so nothing in it is trusted: the capacity is read once,
// when attaching, and indices that do not fit it make the ring corrupt. A corrupt ring moves no more bytes.
//
// Whoever has changed the ring wakes the other end once the lock is free: woken earlier it would only come to wait for
// the lock. Before an end sleeps it looks for a while whether the other one is just about to move (lookout.h).
//
// An honest end holds the mutex for less than a microsecond. A client waits for it without limit. The end that made the
// ring serves others too, who must not wait because one keeps a lock: its operations give up when they say so, as if
// there were nothing to be moved, and the ring is held up from then until somebody gets the lock again. For a
// connection 5 s of that are the end.
//
// Threads: one reader and one writer may be inside at once, Interrupt comes from any thread, Detach only while nobody
// else is inside.
#ifndef KESTRUN_TRANSPORT_IPC_RING_H_
#define KESTRUN_TRANSPORT_IPC_RING_H_

#include <atomic>
#include <string>

#include "platform/win32.h"
#include "runtime/sync.h"
#include "runtime/types.h"
#include "transport/lookout.h"

namespace kestrun {

class IpcRing {
 public:
  static constexpr u32 kHeaderSize = 16;
  // How long the end that made the ring waits for its lock where nothing else is said.
  static constexpr u32 kPatienceMs = 50;

  // Holds the ring's lock for a scope, if it was to be had: within limitMs at the end that made the ring, and at the
  // other one before somebody interrupts it. Makes several operations one step, as long as none of them has to wait.
  class Turn {
   public:
    explicit Turn(IpcRing& ring, u32 limitMs = kPatienceMs) : ring_(ring), hasLock_(ring.TakeLock(limitMs)) {}
    ~Turn() {
      if (hasLock_) ring_.lock_.Unlock();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return hasLock_; }

   private:
    IpcRing& ring_;
    const bool hasLock_;
  };

  // Makes an empty ring of regionSize bytes at `base` and attaches to it. Throws SyncException, as the next one does.
  IpcRing(void* base, u32 regionSize, const std::string& name);
  // Attaches to the ring that stands at `base`. The caller compares GetRegionSize() with what is mapped before anything
  // else is done with the ring.
  IpcRing(void* base, const std::string& name);
  // Detaches.
  ~IpcRing();
  IpcRing(const IpcRing&) = delete;
  IpcRing& operator=(const IpcRing&) = delete;

  // Ends this view: the attach count falls and the generation rises, which is what the other end sees. Later calls
  // find nothing and move nothing.
  void Detach();

  // Blocks while the ring is full, for at most timeoutMs at a time, which is its patience with the lock as well.
  // Returns the bytes written: fewer than length when a wait ran out or the ring is corrupt; those written stand.
  u32 Write(const void* source, u32 length, u32 timeoutMs);

  // Writes what there is room for, without a wait, and leaves it to the caller to wake the reader. Returns its length.
  u32 WriteQuietly(const void* source, u32 length, u32 lockLimitMs = kPatienceMs);

  // Blocks while the ring is empty, for at most timeoutMs, and returns what is there, up to length. Returns 0 on a
  // timeout, on a corrupt ring, and at once when it finds the ring empty after some end has detached; the next call
  // waits again.
  u32 Read(void* target, u32 length, u32 timeoutMs);

  // Drops every byte that waits in the ring; returns their number.
  u32 Discard();

  // Bytes that wait to be read.
  u32 GetUsed();
  // The same as a glance, without the lock: what it tells may have changed already.
  bool SeemsEmpty() const;
  // Bytes that a Write would take without a wait.
  u32 GetFree();
  u32 GetAttachCount() const;
  // How often an end has attached since the ring was made, modulo 65536.
  u16 GetAttachTotal() const;
  u32 GetRegionSize() const { return capacity_ + kHeaderSize; }
  bool IsCorrupt() const { return isCorrupt_.load(std::memory_order_relaxed); }
  // Whether an operation has given up for want of the lock, and none has got it since.
  bool IsHeldUp() const { return heldUpSince_.load(std::memory_order_relaxed) != 0; }
  // Corrupt, or held up for so long that the other end won't give the lock back.
  bool IsRuined() const;

  // Ends a blocked Read or Write of this view, and every later one at once. From any thread.
  void Interrupt();

  HANDLE GetNotEmptyHandle() const { return notEmpty_.GetHandle(); }
  HANDLE GetNotFullHandle() const { return notFull_.GetHandle(); }
  void WakeReader() { notEmpty_.Signal(); }
  void WakeWriter() { notFull_.Signal(); }

 private:
  struct Header;
  // A copy of the indices, taken under the lock and known to fit the capacity.
  struct Indices;

  bool ReadIndices(Indices& out);
  bool TakeLock(u32 limitMs);
  bool WaitForLock(u32 limitMs);
  u32 WriteInPieces(const u8* source, u32 length, u32 lockLimitMs, Indices& indices);
  u32 ReadInPieces(u8* target, u32 length, Indices& indices);
  bool ReadWhatIsThere(u8* target, u32 length, u32& count);
  bool WaitForRoom(u32 wanted, u32 timeoutMs);
  bool SeemsToHaveNews() const;
  bool SeemsToHaveRoom(u32 count) const;
  u16 ReadGeneration() const;
  u8* Data() const;
  void Attach();
  void CopyIn(const u8* source, u32 length, Indices& indices);
  void CopyOut(u8* target, u32 length, Indices& indices);

  Header* header_;  // null once detached
  // Constant after construction.
  u32 capacity_;
  bool servesOthers_;
  u16 generation_ = 0;  // the reader's
  Lookout readerLookout_;
  Lookout writerLookout_;
  std::atomic<bool> isCorrupt_{false};
  std::atomic<bool> isInterrupted_{false};
  std::atomic<u32> heldUpSince_{0};  // by the tick count; 0 if it is not
  ConditionVariable notEmpty_;
  ConditionVariable notFull_;
  Mutex lock_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_IPC_RING_H_
