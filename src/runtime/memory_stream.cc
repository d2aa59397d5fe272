#include "runtime/memory_stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kestrun {

namespace {

constexpr u32 kMinCapacity = 1024;
constexpr u32 kDoublingLimit = 0x800000;
constexpr u32 kLargeStep = 0x200000;

// The capacity that follows `present` when `want` bytes are asked for; 64 bits, since the step may lead past 4 GiB.
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

// Delegates, so that the destructor frees the buffer when the read throws.
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
  if (IsMapped()) {
    UnmapViewOfFile(data_);
    mapping_.Reset();
    data_ = nullptr;
  }
  file_.Reset();
  if (owns_) std::free(data_);
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
  std::copy_n(static_cast<const u8*>(buffer), count, data_ + position_);
  position_ += count;
  size_ = std::max(size_, position_);
  return count;
}

bool MemoryStream::Reserve(u32 capacity) {
  // A mapped file is memory that nobody may write to.
  if (!owns_ || IsMapped()) return false;
  u32 want = std::max(capacity, kMinCapacity);
  if (want <= GetCapacity()) return true;
  u64 next = NextCapacity(GetCapacity(), want);
  return next <= 0xFFFFFFFF && Grow(static_cast<u32>(next));
}

// Moves the content to a new buffer of that size.
bool MemoryStream::Grow(u32 capacity) {
  // Beyond some megabytes the C library moves pages and copies nothing, which keeps the constant growth step
  // affordable: by copies, collecting n bytes would cost n * n.
  auto* grown = static_cast<u8*>(std::realloc(data_, capacity));
  if (grown == nullptr) return false;
  data_ = grown;
  end_ = grown + capacity;
  return true;
}

u32 MemoryStream::Append(const void* data, u32 count) {
  if (count == 0 || count > 0xFFFFFFFF - size_ || !Reserve(size_ + count)) return 0;
  std::copy_n(static_cast<const u8*>(data), count, data_ + size_);
  size_ += count;
  return count;
}

u32 MemoryStream::ReadFrom(Stream& source) {
  u32 available = source.GetAvailable();
  if (available == 0) return 0;
  if (available > 0xFFFFFFFF - size_ || !Reserve(size_ + available)) return kReadFailed;
  u32 read = source.Read(data_ + size_, available);
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
