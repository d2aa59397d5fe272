#include "transport/ipc_ring.h"

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
  // What lies in one piece from the read index, and what is free in one piece from the write index.
  u32 UsedInOnePiece() const { return read > write ? capacity - read : write - read; }
  u32 FreeInOnePiece() const {
    if (write < read) return read - write - 1;
    return capacity - write - (read == 0 ? 1 : 0);
  }
};

namespace {

// The header lies in memory that another process reads and writes.
template <class T>
T Load(T& field) {
  return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

template <class T>
void Store(T& field, T value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

}  // namespace

IpcRing::IpcRing(void* base, u32 regionSize, const std::string& name)
    : header_(static_cast<Header*>(base)),
      capacity_(regionSize - kHeaderSize),
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
      notEmpty_((name + ".ne").c_str()),
      notFull_((name + ".nf").c_str()),
      lock_((name + ".lk").c_str()) {
  Attach();
}

IpcRing::~IpcRing() {
  Detach();
}

void IpcRing::Attach() {
  std::atomic_ref<u16>(header_->attachCount).fetch_add(1);
  generation_ = ReadGeneration();
}

void IpcRing::Detach() {
  if (header_ == nullptr) return;
  std::atomic_ref<u16>(header_->attachCount).fetch_sub(1);
  std::atomic_ref<u16>(header_->detachGeneration).fetch_add(1);
  header_ = nullptr;
}

u32 IpcRing::Write(const void* source, u32 length, u32 timeoutMs) {
  const u8* const data = static_cast<const u8*>(source);
  u32 written = 0;
  do {
    written += WriteQuietly(data + written, length - written);
    if (header_ == nullptr || isInterrupted_ || isCorrupt_) break;
    WakeReader();
  } while (written < length && WaitForRoom(timeoutMs));
  return written;
}

u32 IpcRing::WriteQuietly(const void* source, u32 length) {
  if (header_ == nullptr) return 0;
  const MutexLock locked(&lock_);
  Indices indices{};
  if (isInterrupted_ || !ReadIndices(indices)) return 0;
  return CopyIn(static_cast<const u8*>(source), length, indices);
}

// A reader that made room before the wait has left the event set.
bool IpcRing::WaitForRoom(u32 timeoutMs) {
  if (WaitForHandle(GetNotFullHandle(), timeoutMs)) return true;
  const MutexLock locked(&lock_);
  Indices indices{};
  return ReadIndices(indices) && indices.Free() > 0;
}

u32 IpcRing::Read(void* target, u32 length, u32 timeoutMs) {
  if (header_ == nullptr) return 0;
  u32 count = 0;
  {
    const MutexLock locked(&lock_);
    Indices indices{};
    if (!WaitForBytes(indices, timeoutMs)) return 0;
    count = CopyOut(static_cast<u8*>(target), length, indices);
    if (indices.Free() == 0) return count;
  }
  WakeWriter();
  return count;
}

// With the lock held, which is free while it waits. True when there is something to return, be it nothing.
bool IpcRing::WaitForBytes(Indices& indices, u32 timeoutMs) {
  for (;;) {
    if (isInterrupted_ || !ReadIndices(indices)) return false;
    const u16 generation = ReadGeneration();
    if (indices.Used() > 0 || generation != generation_) {
      generation_ = generation;
      return true;
    }
    if (!notEmpty_.Wait(lock_, timeoutMs)) return false;
  }
}

void IpcRing::Interrupt() {
  isInterrupted_ = true;
  WakeReader();
  WakeWriter();
}

u32 IpcRing::Discard() {
  if (header_ == nullptr) return 0;
  const MutexLock locked(&lock_);
  Indices indices{};
  if (!ReadIndices(indices)) return 0;
  Store(header_->readIndex, indices.write);
  return indices.Used();
}

u32 IpcRing::GetUsed() {
  if (header_ == nullptr) return 0;
  const MutexLock locked(&lock_);
  Indices indices{};
  return ReadIndices(indices) ? indices.Used() : 0;
}

bool IpcRing::SeemsEmpty() const {
  return header_ == nullptr || Load(header_->writeIndex) == Load(header_->readIndex);
}

u32 IpcRing::GetFree() {
  if (header_ == nullptr) return 0;
  const MutexLock locked(&lock_);
  Indices indices{};
  return ReadIndices(indices) ? indices.Free() : 0;
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
  if (out.write < capacity_ && out.read < capacity_) return true;
  isCorrupt_.store(true, std::memory_order_relaxed);
  return false;
}

u16 IpcRing::ReadGeneration() const {
  return Load(header_->detachGeneration);
}

u8* IpcRing::Data() const {
  return reinterpret_cast<u8*>(header_) + kHeaderSize;
}

// At most two pieces: up to the end of the data area, and from its start.
u32 IpcRing::CopyIn(const u8* source, u32 length, Indices& indices) {
  u32 copied = 0;
  while (copied < length) {
    const u32 count = std::min(indices.FreeInOnePiece(), length - copied);
    if (count == 0) break;
    std::memcpy(Data() + indices.write, source + copied, count);
    indices.write = (indices.write + count) % capacity_;
    copied += count;
  }
  Store(header_->writeIndex, indices.write);
  return copied;
}

u32 IpcRing::CopyOut(u8* target, u32 length, Indices& indices) {
  u32 copied = 0;
  while (copied < length) {
    const u32 count = std::min(indices.UsedInOnePiece(), length - copied);
    if (count == 0) break;
    std::memcpy(target + copied, Data() + indices.read, count);
    indices.read = (indices.read + count) % capacity_;
    copied += count;
  }
  Store(header_->readIndex, indices.read);
  return copied;
}

}  // namespace kestrun
