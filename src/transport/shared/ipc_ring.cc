// Writing and reading a ring. The steps of a writer, and those of a reader with the roles exchanged:
//
//   1. under the mutex   reads the indices; up to 512 bytes are copied and the index is moved, and the mutex released
//     2. without it        copies a piece of a larger block into the free part, which the other end leaves alone
//   3. under the mutex   moves the index behind the piece, and reads the indices again
//   4. without it        wakes the other end, and waits if there is more to write than room
//
// The mutex is robust: if a process dies in step 1 or 3, the system passes it on. Each index is one store, so no state
// in which a process can die needs to be repaired.
#include "transport/shared/ipc_ring.h"

#include <algorithm>
#include <cstring>

namespace kestrun {

struct IpcRing::Header {
  u32 capacity;
  u32 writeIndex;
  u32 readIndex;
  u16 attachCount;
  u16 detachGeneration;
};

struct IpcRing::Indices {
  u32 write;
  u32 read;
  u32 capacity;

  u32 Used() const { return read > write ? write + capacity - read : write - read; }
  u32 Free() const { return capacity - 1 - Used(); }
};

namespace {

// A block up to this size is copied under the lock, because taking the lock a second time would cost more.
constexpr u32 kSmallBlock = 512;
// The most that is copied before the index moves: the other end can work on one piece while the next is copied.
constexpr u32 kPiece = 0x4000;

constexpr u32 kLockSliceMs = 20;
constexpr u32 kLockLossMs = 5000;

// The header lies in memory that another process reads and writes, so each access is atomic. Relaxed, in Load and
// Store: the ring's mutex orders the indices and the data. No conclusion about data is drawn from values read without
// the mutex (attach count, generation, the indices during a spin).
template <class T>
T Load(T& field) {
  return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

template <class T>
void Store(T& field, T value) {
  // Relaxed: see Load.
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

}  // namespace

IpcRing::IpcRing(void* base, u32 regionSize, const std::string& name)
    : header_(static_cast<Header*>(base)),
      capacity_(regionSize - kHeaderSize),
      hasLockTimeout_(true),
      notEmpty_((name + ".ne").c_str()),
      notFull_((name + ".nf").c_str()),
      lock_((name + ".lk").c_str()) {
  static_assert(sizeof(Header) == kHeaderSize);
  Store(header_->capacity, capacity_);
  Store(header_->writeIndex, 0u);
  Store(header_->readIndex, 0u);
  Attach();
}

IpcRing::IpcRing(void* base, const std::string& name)
    : header_(static_cast<Header*>(base)),
      capacity_(Load(header_->capacity)),
      hasLockTimeout_(false),
      notEmpty_((name + ".ne").c_str()),
      notFull_((name + ".nf").c_str()),
      lock_((name + ".lk").c_str()) {
  Attach();
}

IpcRing::~IpcRing() {
  Detach();
}

void IpcRing::Attach() {
  // Atomic, because both ends change this field, and the generation, without the mutex: a stopped holder of the mutex
  // must not delay a detachment.
  std::atomic_ref<u16>(header_->attachCount).fetch_add(1);
  readerGeneration_ = ReadGeneration();
  writerGeneration_ = readerGeneration_;
}

void IpcRing::Detach() {
  if (header_ == nullptr) return;
  std::atomic_ref<u16>(header_->attachCount).fetch_sub(1);
  std::atomic_ref<u16>(header_->detachGeneration).fetch_add(1);
  header_ = nullptr;
}

bool IpcRing::TakeLock(u32 timeoutMs) {
  if (!lock_.Lock(0) && !WaitForLock(timeoutMs)) return false;
  if (HasLockTimedOut()) lockTimedOutSince_ = 0;
  return true;
}

// Waits in short slices, because only this loop sees an Interrupt. A lock that has timed out already is not waited for
// again, except for one slice if the caller gives more than the usual timeout: the lock may have another holder by now,
// which releases it soon.
bool IpcRing::WaitForLock(u32 timeoutMs) {
  const u32 start = GetTickCount();
  if (HasLockTimedOut() && timeoutMs <= kLockTimeoutMs) return false;
  while (!isInterrupted_) {
    if (lock_.Lock(kLockSliceMs)) return true;
    if (hasLockTimeout_ && (GetTickCount() - start >= timeoutMs || IsUnusable())) break;
  }
  u32 notTimedOut = 0;
  if (hasLockTimeout_) lockTimedOutSince_.compare_exchange_strong(notTimedOut, std::max(start, 1u));
  return false;
}

bool IpcRing::IsUnusable() const {
  // 0 means that the lock is not timed out, so a tick count of 0 is stored as 1 (WaitForLock).
  const u32 since = lockTimedOutSince_;
  return IsCorrupt() || (since != 0 && GetTickCount() - since >= kLockLossMs);
}

u32 IpcRing::Write(const void* source, u32 length, u32 timeoutMs) {
  const u8* const data = static_cast<const u8*>(source);
  u32 written = 0;
  do {
    written += WriteQuietly(data + written, length - written, std::max(timeoutMs, kLockTimeoutMs));
    if (header_ == nullptr || isInterrupted_ || isCorrupt_ || HasLockTimedOut()) break;
    WakeReader();
  } while (written < length && !WriterSeesDetachment() && WaitForRoom(length - written, timeoutMs));
  return written;
}

u32 IpcRing::WriteQuietly(const void* source, u32 length, u32 lockTimeoutMs) {
  if (header_ == nullptr) return 0;
  const u8* const data = static_cast<const u8*>(source);
  Indices indices{};
  {
    const LockGuard guard(*this, lockTimeoutMs);
    if (!guard || isInterrupted_ || !ReadIndices(indices)) return 0;
    const u32 count = std::min(length, indices.Free());
    if (count <= kSmallBlock) {
      CopyIn(data, count, indices);
      Store(header_->writeIndex, indices.write);
      return count;
    }
  }
  return WriteInPieces(data, length, lockTimeoutMs, indices);
}

// Copies without the lock, which is only taken between two pieces to move and read the indices. The free part stays
// free meanwhile, since only this end fills it.
u32 IpcRing::WriteInPieces(const u8* source, u32 length, u32 lockTimeoutMs, Indices& indices) {
  u32 written = 0;
  while (const u32 count = std::min({length - written, indices.Free(), kPiece})) {
    CopyIn(source + written, count, indices);
    const LockGuard guard(*this, lockTimeoutMs);
    if (!guard) break;
    written += count;
    Store(header_->writeIndex, indices.write);
    if (!ReadIndices(indices)) break;
  }
  return written;
}

// Nothing is missed: a reader that made room, or detached, before the wait has left the event set.
bool IpcRing::WaitForRoom(u32 wanted, u32 timeoutMs) {
  if (timeoutMs > 0 && writerSpin_.Await([&] { return SeemsToHaveRoom(std::min(wanted, kPiece)); })) return true;
  if (WaitForHandle(notFull_.GetHandle(), timeoutMs)) return true;
  return GetFree() > 0;
}

// Nothing is missed: a writer that wrote before the wait has left the event set.
u32 IpcRing::Read(void* target, u32 length, u32 timeoutMs) {
  if (header_ == nullptr) return 0;
  u32 count = 0;
  do {
    if (timeoutMs > 0) readerSpin_.Await([this] { return SeemsToHaveNews(); });
    if (ReadWhatIsThere(static_cast<u8*>(target), length, count)) return count;
  } while (WaitForHandle(GetNotEmptyHandle(), timeoutMs));
  return 0;
}

// True if Read is finished: `count` bytes were read, or none will come (corrupt, interrupted, an end has detached).
bool IpcRing::ReadWhatIsThere(u8* target, u32 length, u32& count) {
  Indices indices{};
  {
    const LockGuard guard(*this);
    if (!guard || isInterrupted_ || !ReadIndices(indices)) return true;
    const u16 generation = ReadGeneration();
    if (indices.Used() == 0 && generation == readerGeneration_) return false;
    readerGeneration_ = generation;
    count = std::min(length, indices.Used());
    if (count <= kSmallBlock) {
      CopyOut(target, count, indices);
      Store(header_->readIndex, indices.read);
    }
  }
  if (count > kSmallBlock) count = ReadInPieces(target, length, indices);
  if (indices.Free() > 0) WakeWriter();
  return true;
}

u32 IpcRing::ReadInPieces(u8* target, u32 length, Indices& indices) {
  u32 read = 0;
  while (const u32 count = std::min({length - read, indices.Used(), kPiece})) {
    CopyOut(target + read, count, indices);
    const LockGuard guard(*this);
    if (!guard) break;
    read += count;
    Store(header_->readIndex, indices.read);
    if (!ReadIndices(indices)) break;
  }
  return read;
}

void IpcRing::Interrupt() {
  isInterrupted_ = true;
  WakeReader();
  WakeWriter();
}

u32 IpcRing::Discard() {
  if (header_ == nullptr) return 0;
  const LockGuard guard(*this);
  Indices indices{};
  if (!guard || !ReadIndices(indices)) return 0;
  Store(header_->readIndex, indices.write);
  return indices.Used();
}

bool IpcRing::HasSoundHeader() const {
  return Load(header_->capacity) == capacity_ && Load(header_->writeIndex) < capacity_ &&
         Load(header_->readIndex) < capacity_;
}

void IpcRing::RepairHeader() {
  if (header_ == nullptr || (HasSoundHeader() && !IsCorrupt())) return;
  const LockGuard guard(*this);
  if (!guard) return;
  Store(header_->capacity, capacity_);
  Indices indices{};
  if (!ReadIndices(indices)) {
    Store(header_->writeIndex, 0u);
    Store(header_->readIndex, 0u);
  }
  isCorrupt_ = false;
}

u32 IpcRing::GetUsed() {
  if (header_ == nullptr) return 0;
  const LockGuard guard(*this);
  Indices indices{};
  return guard && ReadIndices(indices) ? indices.Used() : 0;
}

bool IpcRing::SeemsEmpty() const {
  return header_ == nullptr || Load(header_->writeIndex) == Load(header_->readIndex);
}

bool IpcRing::SeemsToHaveNews() const {
  return !SeemsEmpty() || ReadGeneration() != readerGeneration_ || isInterrupted_;
}

bool IpcRing::SeemsToHaveRoom(u32 count) const {
  const Indices indices{Load(header_->writeIndex), Load(header_->readIndex), capacity_};
  return indices.Free() >= count || ReadGeneration() != writerGeneration_ || isInterrupted_;
}

// True once for each change, so that a peer that keeps rewriting the field ends one wait of the writer and not all
// later ones.
bool IpcRing::WriterSeesDetachment() {
  const u16 known = writerGeneration_;
  writerGeneration_ = ReadGeneration();
  return writerGeneration_ != known;
}

u32 IpcRing::GetFree() {
  if (header_ == nullptr) return 0;
  const LockGuard guard(*this);
  Indices indices{};
  return guard && ReadIndices(indices) ? indices.Free() : 0;
}

u32 IpcRing::GetAttachCount() const {
  return header_ != nullptr ? Load(header_->attachCount) : 0;
}

u16 IpcRing::GetAttachTotal() const {
  if (header_ == nullptr) return 0;
  return static_cast<u16>(Load(header_->attachCount) + ReadGeneration());
}

bool IpcRing::ReadIndices(Indices& out) {
  out = {Load(header_->writeIndex), Load(header_->readIndex), capacity_};
  // The capacity is this end's own copy; a peer that changes the one in memory changes nothing here.
  if (out.write < capacity_ && out.read < capacity_) return true;
  isCorrupt_ = true;
  return false;
}

u16 IpcRing::ReadGeneration() const {
  return Load(header_->detachGeneration);
}

u8* IpcRing::Data() const {
  return reinterpret_cast<u8*>(header_) + kHeaderSize;
}

// Copies at most two parts: up to the end of the data area, and from its start. The caller has checked that there is
// room, or that the bytes are there.
void IpcRing::CopyIn(const u8* source, u32 length, Indices& indices) {
  const u32 first = std::min(length, capacity_ - indices.write);
  std::memcpy(Data() + indices.write, source, first);
  std::memcpy(Data(), source + first, length - first);
  indices.write = (indices.write + length) % capacity_;
}

void IpcRing::CopyOut(u8* target, u32 length, Indices& indices) {
  const u32 first = std::min(length, capacity_ - indices.read);
  std::memcpy(target, Data() + indices.read, first);
  std::memcpy(target + first, Data(), length - first);
  indices.read = (indices.read + length) % capacity_;
}

}  // namespace kestrun
