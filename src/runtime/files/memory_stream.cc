#include "runtime/files/memory_stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kestrun {

namespace {

constexpr u32 kMinCapacity = 1024;
constexpr u32 kDoublingLimit = 0x800000;
constexpr u32 kLargeStep = 0x200000;

// The next capacity after `present` when `want` bytes are asked for. 64 bits, since the step may lead past 4 GiB.
u64 NextCapacity(u32 present, u32 want) {
  if (present == 0) return want;
  if (want > kDoublingLimit) return (u64{want} + kLargeStep + kMinCapacity - 1) / kMinCapacity * kMinCapacity;
  u64 capacity = present;
  while (capacity < want) capacity *= 2;
  return capacity;
}

StreamException OutOfMemory() {
  return StreamException("Out of memory");
}

}  // namespace

// A piece of the heap, which streams may share (TakeContent). From malloc and not a vector, because it is grown by
// realloc and need not be zeroed.
struct MemoryStream::Block : rc_base {
  ~Block() override { std::free(data); }
  u8* data = nullptr;
};

MemoryStream::MemoryStream() = default;

MemoryStream::MemoryStream(void* data, u32 size, bool wrap) {
  owns_ = !wrap;
  if (wrap) {
    data_ = static_cast<u8*>(data);
    end_ = data_ + size;
  } else {
    if (size > 0 && !Grow(size)) throw OutOfMemory();
    std::copy_n(static_cast<const u8*>(data), size, data_);
  }
  size_ = size;
}

// Delegates to another constructor, so that the destructor runs and frees the buffer if the read throws.
MemoryStream::MemoryStream(u32 size, Stream& source) : MemoryStream() {
  if (size > 0 && (!Grow(size) || source.Read(data_, size) < size)) throw OutOfMemory();
  size_ = size;
}

MemoryStream::~MemoryStream() {
  Close();
}

bool MemoryStream::Seek(u32 position) {
  if (position > size_) return false;
  position_ = position;
  return true;
}

void MemoryStream::Close() {
  // Mapped memory goes back to the system; memory of the heap goes with its block, and foreign memory is left alone.
  if (IsMapped()) {
    UnmapViewOfFile(data_);
    mapping_.Reset();
    data_ = nullptr;
  }
  file_.Reset();
  block_.Reset();
  data_ = nullptr;
  end_ = nullptr;
  size_ = 0;
  position_ = 0;
}

u32 MemoryStream::Read(void* buffer, u32 count) {
  u32 read = std::min(count, size_ - position_);
  std::copy_n(data_ + position_, read, static_cast<u8*>(buffer));
  position_ += read;
  return read;
}

u32 MemoryStream::Write(const void* buffer, u32 count) {
  if (count > 0xFFFFFFFF - position_ || !Reserve(position_ + count)) throw OutOfMemory();
  // Overwriting bytes that another stream may see needs a copy first. Appending does not: a stream that was taken ends
  // before the place where this one appends.
  if (position_ < size_ && IsShared() && !Grow(GetCapacity())) throw OutOfMemory();
  std::copy_n(static_cast<const u8*>(buffer), count, data_ + position_);
  position_ += count;
  size_ = std::max(size_, position_);
  return count;
}

bool MemoryStream::Reserve(u32 capacity) {
  // The memory of a mapped file is read-only.
  if (!owns_ || IsMapped()) return false;
  u32 want = std::max(capacity, kMinCapacity);
  if (want <= GetCapacity()) return true;
  u64 next = NextCapacity(GetCapacity(), want);
  return next <= 0xFFFFFFFF && Grow(static_cast<u32>(next));
}

bool MemoryStream::IsShared() const {
  return block_ && block_->IsShared();
}

// Moves the content to a buffer of that size that is not shared.
bool MemoryStream::Grow(u32 capacity) {
  // A shared block must not be moved. Neither may a block of which this stream has only a part: realloc would keep the
  // wrong bytes.
  const bool mustCopy = block_ && (block_->IsShared() || block_->data != data_);
  const rc_ptr<Block> block = block_ && !mustCopy ? block_ : rc_ptr<Block>(new Block);
  // realloc and not a new block: beyond some megabytes the C library moves pages and copies nothing, which keeps the
  // constant growth step affordable. With copies, collecting n bytes would cost a multiple of n * n.
  auto* grown = static_cast<u8*>(std::realloc(block->data, capacity));
  if (grown == nullptr) return false;
  block->data = grown;
  if (mustCopy) std::copy_n(data_, size_, grown);
  block_ = block;
  data_ = grown;
  end_ = grown + capacity;
  return true;
}

void MemoryStream::Clear() {
  if (IsShared()) {
    Close();
  } else {
    size_ = position_ = 0;
  }
}

rc_ptr<MemoryStream> MemoryStream::TakeContent(u32 count) {
  // A small part of a large block is copied: otherwise it would keep the whole block alive.
  if (!block_ || count < GetCapacity() / 2 || count > GetAvailable()) return new MemoryStream(count, *this);
  rc_ptr<MemoryStream> taken(new MemoryStream);
  taken->block_ = block_;
  taken->data_ = data_ + position_;
  taken->end_ = taken->data_ + count;
  taken->size_ = count;
  position_ += count;
  return taken;
}

u8* MemoryStream::MakeRoom(u32 count) {
  return count <= 0xFFFFFFFF - size_ && Reserve(size_ + count) ? data_ + size_ : nullptr;
}

u32 MemoryStream::Append(const void* data, u32 count) {
  u8* const room = count > 0 ? MakeRoom(count) : nullptr;
  if (room == nullptr) return 0;
  std::copy_n(static_cast<const u8*>(data), count, room);
  size_ += count;
  return count;
}

u32 MemoryStream::ReadFrom(Stream& source) {
  u32 available = source.GetAvailable();
  if (available == 0) return 0;
  u8* const room = MakeRoom(available);
  if (room == nullptr) return kReadFailed;
  u32 read = source.Read(room, available);
  size_ += read;
  return read;
}

bool MemoryStream::MapFile(const Path& path) {
  if (!owns_) return false;
  UniqueFile file(CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file) return false;
  UniqueHandle mapping(CreateFileMappingA(file.Get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
  if (!mapping) return false;
  void* view = MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0);
  if (view == nullptr) return false;
  Close();
  file_ = std::move(file);
  mapping_ = std::move(mapping);
  data_ = static_cast<u8*>(view);
  size_ = GetFileSize(file_.Get(), nullptr);
  end_ = data_ + size_;
  return true;
}

bool MemoryStream::SaveFile(const Path& path) const {
  UniqueFile file(CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  DWORD written = 0;
  return file && WriteFile(file.Get(), data_, size_, &written, nullptr) && written == size_;
}

}  // namespace kestrun
