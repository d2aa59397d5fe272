// One end's view of a byte ring in shared memory: one writer and one reader, usually in two processes.
//
// Owns its handles of the ring's two events and of its mutex; borrows the mapped memory, which must outlive it. The
// named objects are <name>.ne (not empty), <name>.nf (not full) and <name>.lk; the end that comes first creates them.
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
// Equal indices mean empty, and one byte always stays free. The mutex guards the indices across processes; the attach
// count and the generation change without it. The bytes between the indices belong to the reader and the rest to the
// writer, so all but small blocks are copied without the mutex, and the index moves after each piece.
//
// Trust: the process at the other end can write every byte of the memory. The capacity is read once, when attaching,
// and an index outside the data makes the ring corrupt. A corrupt ring moves no more bytes.
//
// Waking: an end wakes the other one after it has released the mutex; woken earlier, the other end would only wait for
// the mutex. Before an end sleeps it spins for a short time (adaptive_spin.h).
//
// Lock timeout: an honest end holds the mutex for less than a microsecond. A client waits for it without limit. The end
// that made the ring serves other clients too and must not wait for one that keeps a lock: its operations have a lock
// timeout, after which they behave as if there was nothing to move. The lock counts as timed out until it is taken
// again. A connection whose lock has been timed out for 5 s is closed.
//
// Threads: one reader and one writer may be inside at once; Interrupt may be called from any thread, Detach only while
// no other thread is inside.
#ifndef KESTRUN_TRANSPORT_SHARED_IPC_RING_H_
#define KESTRUN_TRANSPORT_SHARED_IPC_RING_H_

#include <atomic>
#include <string>

#include "platform/win32.h"
#include "runtime/base/types.h"
#include "runtime/threads/sync.h"
#include "transport/shared/adaptive_spin.h"

namespace kestrun {

class IpcRing {
 public:
  static constexpr u32 kHeaderSize = 16;
  // The lock timeout where no other one is given.
  static constexpr u32 kLockTimeoutMs = 50;

  // Holds the ring's lock for a scope, if it could be taken: within lockTimeoutMs at the end that made the ring, and
  // before an Interrupt at the other one. Under a guard several operations are one step; none of them may wait.
  class LockGuard {
   public:
    explicit LockGuard(IpcRing& ring, u32 lockTimeoutMs = kLockTimeoutMs)
        : ring_(ring), hasLock_(ring.TakeLock(lockTimeoutMs)) {}
    ~LockGuard() {
      if (hasLock_) ring_.lock_.Unlock();
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
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

  // Ends this view: the attach count falls and the generation rises, by which the other end learns of it. Later calls
  // move nothing.
  void Detach();

  // Blocks while the ring is full, for at most timeoutMs at a time, which is also the lock timeout. Returns the bytes
  // written: fewer than length when a wait ran out, the ring is corrupt, or it is full after some end has detached;
  // those written stand.
  u32 Write(const void* source, u32 length, u32 timeoutMs);

  // Writes what there is room for, without a wait for room and without waking the reader, which the caller does.
  // Returns the bytes written.
  u32 WriteQuietly(const void* source, u32 length, u32 lockTimeoutMs = kLockTimeoutMs);

  // Blocks while the ring is empty, for at most timeoutMs, and returns what is there, up to length. Returns 0 on a
  // timeout, on a corrupt ring, and at once if the ring is empty and an end has detached since the last call; the next
  // call waits again.
  u32 Read(void* target, u32 length, u32 timeoutMs);

  // Drops all bytes in the ring; returns their number.
  u32 Discard();

  // At the end that made the ring: writes the capacity anew, and empties the ring if an index lies outside the data.
  // Without the lock nothing is repaired; the next call tries again.
  void RepairHeader();

  // Bytes that wait to be read.
  u32 GetUsed();
  // Reads the indices without the lock: the answer may already be out of date.
  bool SeemsEmpty() const;
  // Bytes that a Write would take without a wait.
  u32 GetFree();
  u32 GetAttachCount() const;
  // How often an end has attached since the ring was made, modulo 65536.
  u16 GetAttachTotal() const;
  u32 GetRegionSize() const { return capacity_ + kHeaderSize; }
  bool IsCorrupt() const { return isCorrupt_; }
  // True from an operation that failed to take the lock in time until the next one that takes it.
  bool HasLockTimedOut() const { return lockTimedOutSince_ != 0; }
  // Corrupt, or the lock has been timed out for so long that the other end will not release it.
  bool IsUnusable() const;

  // Ends a blocked Read or Write of this view, and every later one at once. From any thread.
  void Interrupt();

  HANDLE GetNotEmptyHandle() const { return notEmpty_.GetHandle(); }
  void WakeReader() { notEmpty_.Signal(); }
  void WakeWriter() { notFull_.Signal(); }

 private:
  struct Header;
  // A copy of the indices, taken under the lock and known to fit the capacity.
  struct Indices;

  bool ReadIndices(Indices& out);
  bool HasSoundHeader() const;
  bool TakeLock(u32 timeoutMs);
  bool WaitForLock(u32 timeoutMs);
  u32 WriteInPieces(const u8* source, u32 length, u32 lockTimeoutMs, Indices& indices);
  u32 ReadInPieces(u8* target, u32 length, Indices& indices);
  bool ReadWhatIsThere(u8* target, u32 length, u32& count);
  bool WaitForRoom(u32 wanted, u32 timeoutMs);
  bool SeemsToHaveNews() const;
  bool SeemsToHaveRoom(u32 count) const;
  bool WriterSeesDetachment();
  u16 ReadGeneration() const;
  u8* Data() const;
  void Attach();
  void CopyIn(const u8* source, u32 length, Indices& indices);
  void CopyOut(u8* target, u32 length, Indices& indices);

  Header* header_;  // null once detached
  // Constant after construction.
  u32 capacity_;
  bool hasLockTimeout_;
  // The detach generation that the reader and the writer of this end have seen last; each is owned by its thread.
  u16 readerGeneration_ = 0;
  u16 writerGeneration_ = 0;
  AdaptiveSpin readerSpin_;
  AdaptiveSpin writerSpin_;
  std::atomic<bool> isCorrupt_{false};
  std::atomic<bool> isInterrupted_{false};
  std::atomic<u32> lockTimedOutSince_{0};  // tick count; 0 while the lock is not timed out
  ConditionVariable notEmpty_;
  ConditionVariable notFull_;
  Mutex lock_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_IPC_RING_H_
