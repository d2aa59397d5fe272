#ifndef KESTRUN_STUBS_ECHO_STREAM_H_
#define KESTRUN_STUBS_ECHO_STREAM_H_

#include <cstdio>

#include "runtime/stream.h"

namespace kestrun {

// A write-only stream over one of the process's own standard streams: each write goes out at once, byte for byte.
// Borrows the file. One writer at a time; two streams over two files may be written by two threads.
class EchoStream : public Stream {
 public:
  explicit EchoStream(std::FILE* file) : file_(file) {}

  u32 GetMode() override { return kWritable; }
  u32 GetAvailable() override { return 0; }
  u32 GetPosition() override { return 0; }
  bool Seek(u32) override { return false; }
  void Close() override {}
  u32 Read(void*, u32) override { return 0; }
  u32 Write(const void* buffer, u32 count) override {
    const auto written = std::fwrite(buffer, 1, count, file_);
    std::fflush(file_);
    return static_cast<u32>(written);
  }

 private:
  std::FILE* const file_;
};

}  // namespace kestrun

#endif  // KESTRUN_STUBS_ECHO_STREAM_H_
