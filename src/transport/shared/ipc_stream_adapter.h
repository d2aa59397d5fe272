// An IpcSocket as a write-only Stream. Any thread may write; a write is not mixed with another one.
//
// A full ring with a live peer blocks the writer without limit; it checks the peer once a second. Write throws
// StreamException when the peer has gone with bytes still to be written. Close releases the socket and does not close
// it; an adapter without a socket takes everything and writes nothing.
#ifndef KESTRUN_TRANSPORT_SHARED_IPC_STREAM_ADAPTER_H_
#define KESTRUN_TRANSPORT_SHARED_IPC_STREAM_ADAPTER_H_

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/stream.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {

class IpcSocket::StreamAdapter : public Stream {
 public:
  explicit StreamAdapter(rc_ptr<IpcSocket> socket);

  u32 GetMode() override;
  u32 GetAvailable() override;
  u32 GetPosition() override { return 0; }
  bool Seek(u32) override { return false; }
  void Close() override;
  u32 Read(void*, u32) override { return 0; }
  u32 Write(const void* buffer, u32 count) override;

 private:
  CriticalSection lock_;
  rc_ptr<IpcSocket> socket_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SHARED_IPC_STREAM_ADAPTER_H_
