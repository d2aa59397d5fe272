// Streams on a handle of the system, which they own and close.
#ifndef KESTRUN_RUNTIME_FILES_FILE_STREAM_H_
#define KESTRUN_RUNTIME_FILES_FILE_STREAM_H_

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/files/stream.h"

namespace kestrun {

// Read throws StreamException with code 0 and "end of stream" when there is nothing more, with the system's error
// otherwise; a pipe whose other end has closed is such an error. Write throws unless everything was written.
class FileStream : public Stream {
 public:
  FileStream(HANDLE handle, u32 mode) : handle_(handle), mode_(mode) {}

  u32 GetMode() override { return mode_; }
  u32 GetAvailable() override { return 0; }
  u32 GetPosition() override;
  bool Seek(u32 position) override;
  void Close() override { handle_.Reset(); }
  u32 Read(void* buffer, u32 count) override;
  u32 Write(const void* buffer, u32 count) override;

 protected:
  HANDLE GetHandle() const { return handle_.Get(); }

 private:
  UniqueFile handle_;
  u32 mode_;
};

// The mode is 0 if the handle is no pipe.
class PipeStream : public FileStream {
 public:
  PipeStream(HANDLE handle, bool writable);

  u32 GetAvailable() override;
  u32 GetPosition() override { return 0; }
  bool Seek(u32) override { return false; }

  using FileStream::GetHandle;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_FILE_STREAM_H_
