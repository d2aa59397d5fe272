#ifndef KESTRUN_CLIENT_ECHO_STREAM_H_
#define KESTRUN_CLIENT_ECHO_STREAM_H_

#include <string_view>

#include "runtime/files/stream.h"

namespace kestrun {

// A write-only stream over one of the functions of app/console.h: each write goes out at once, byte for byte. That
// function handles a write that fails. One writer at a time; two streams over two functions may be written by two
// threads.
class EchoStream : public Stream {
 public:
  using WriteFunction = void (*)(std::string_view);
  explicit EchoStream(WriteFunction write) : write_(write) {}

  u32 GetMode() override { return kWritable; }
  u32 GetAvailable() override { return 0; }
  u32 GetPosition() override { return 0; }
  bool Seek(u32) override { return false; }
  void Close() override {}
  u32 Read(void*, u32) override { return 0; }
  u32 Write(const void* buffer, u32 count) override {
    write_({static_cast<const char*>(buffer), count});
    return count;
  }

 private:
  const WriteFunction write_;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_ECHO_STREAM_H_
