// A stream of bytes, under message encoding and the capture of a tool's output.
//
// Streams differ at their end: a file or a pipe throws StreamException from Read, a MemoryStream gives 0 bytes; code
// that reads a Stream of any kind handles both. A stream has no lock: one thread at a time. GetMode is offered to users
// of the library; the program itself knows its streams.
#ifndef KESTRUN_RUNTIME_FILES_STREAM_H_
#define KESTRUN_RUNTIME_FILES_STREAM_H_

#include <string>

#include "runtime/base/exception.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

class StreamException : public SystemException {
 public:
  explicit StreamException(const std::string& message) : SystemException(message, "StreamException") {}
  StreamException(i32 code, const std::string& message) : SystemException(code, message, "StreamException") {}
};

class Stream : public rc_base {
 public:
  // The bits of GetMode.
  static constexpr u32 kReadable = 1;
  static constexpr u32 kWritable = 2;
  static constexpr u32 kSeekable = 4;

  virtual u32 GetMode() = 0;
  // Bytes that can be read now without blocking.
  virtual u32 GetAvailable() = 0;
  virtual u32 GetPosition() = 0;
  // To a position counted from the start; false if that is not possible.
  virtual bool Seek(u32 position) = 0;
  virtual void Close() = 0;
  // Reads at most `count` bytes; the number of bytes read.
  virtual u32 Read(void* buffer, u32 count) = 0;
  // The number of bytes written.
  virtual u32 Write(const void* buffer, u32 count) = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_STREAM_H_
