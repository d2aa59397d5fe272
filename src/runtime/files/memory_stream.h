// A stream in memory: a buffer that grows, foreign memory that it wraps, or a file that it maps.
//
// It grows by doubling up to 8 MiB and by steps of 2 MiB from there. A stream that wraps foreign memory is read-only
// and never copies; the memory must outlive it. A mapped file is read-only content that is handed on without a copy. A
// stream that TakeContent has made shares memory with the stream that it was taken from. Each may be used as if it were
// alone, because a stream copies shared memory before it changes it.
#ifndef KESTRUN_RUNTIME_FILES_MEMORY_STREAM_H_
#define KESTRUN_RUNTIME_FILES_MEMORY_STREAM_H_

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/files/path.h"
#include "runtime/files/stream.h"

namespace kestrun {

class MemoryStream : public Stream {
 public:
  static constexpr u32 kReadFailed = 0xFFFFFFFF;

  MemoryStream();
  // `size` bytes of content at position 0: a copy, or with `wrap` the memory itself.
  MemoryStream(void* data, u32 size, bool wrap);
  // `size` bytes in one read from `source`; StreamException "Out of memory" if fewer come.
  MemoryStream(u32 size, Stream& source);
  MemoryStream(const MemoryStream&) = delete;
  MemoryStream& operator=(const MemoryStream&) = delete;
  ~MemoryStream() override;

  u32 GetMode() override { return kReadable | kWritable | kSeekable; }
  u32 GetAvailable() override { return size_ - position_; }
  u32 GetPosition() override { return position_; }
  bool Seek(u32 position) override;
  // Forgets the content. The stream may be used again.
  void Close() override;
  // 0 at the end.
  u32 Read(void* buffer, u32 count) override;
  // At the position, over what is there. StreamException "Out of memory" if the stream can not grow.
  u32 Write(const void* buffer, u32 count) override;

  // Forgets the content and keeps the allocation if it is not shared; not for a mapped file or foreign memory.
  void Clear();

  // Room for `capacity` bytes in all. False if the stream can not grow.
  bool Reserve(u32 capacity);

  // Room for `count` bytes behind the end, for the caller to write to; null if there is no memory. Extend then makes
  // the bytes that were written part of the content.
  u8* MakeRoom(u32 count);
  void Extend(u32 count) { size_ += count; }

  // Reads as Read does, into a stream of its own. Without a copy, unless that would keep much more memory alive than it
  // needs. StreamException "Out of memory" if there are fewer bytes.
  rc_ptr<MemoryStream> TakeContent(u32 count);

  // Adds bytes at the end and leaves the position alone. 0 if there is no memory.
  u32 Append(const void* data, u32 count);

  // Adds the bytes that `source` has ready, in one read. The number of bytes, or kReadFailed if there is no memory.
  u32 ReadFrom(Stream& source);

  // Makes a file's bytes the content. False, with the stream as it was, if that fails or the stream wraps memory.
  bool MapFile(const Path& path);

  // Writes the content to a new file. True if all of it was written.
  bool SaveFile(const Path& path) const;

  const u8* GetData() const { return data_; }
  u8* GetData() { return data_; }
  u32 GetSize() const { return size_; }
  u32 GetCapacity() const { return static_cast<u32>(end_ - data_); }

 private:
  struct Block;

  bool IsMapped() const { return mapping_.IsValid(); }
  bool IsShared() const;
  bool Grow(u32 capacity);

  bool owns_ = true;
  rc_ptr<Block> block_;  // what data_ points into; none for a mapped file, foreign memory, an empty stream
  u8* data_ = nullptr;
  u8* end_ = nullptr;
  u32 size_ = 0;
  u32 position_ = 0;
  UniqueFile file_;
  UniqueHandle mapping_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_MEMORY_STREAM_H_
