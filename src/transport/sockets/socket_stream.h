// A socket as a stream, for a message channel: whole writes within a time limit, and reads of what there is.
#ifndef KESTRUN_TRANSPORT_SOCKETS_SOCKET_STREAM_H_
#define KESTRUN_TRANSPORT_SOCKETS_SOCKET_STREAM_H_

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/stream.h"
#include "transport/sockets/socket.h"

namespace kestrun {

// Shares the socket. Failures are StreamExceptions with the socket error as their code.
//
// Writers on several threads are served one after the other, each whole; a reader needs no lock beside them.
class SocketStream : public Stream {
 public:
  // The write limit of streams that are made without one, for the whole process. It starts at 0, with which a write
  // reports a time-out after its first piece.
  static void SetDefaultTimeout(u32 timeoutMs);

  explicit SocketStream(rc_ptr<Socket> socket);
  SocketStream(rc_ptr<Socket> socket, u32 writeTimeoutMs);

  u32 GetMode() override { return kReadable | kWritable; }
  u32 GetAvailable() override;
  u32 GetPosition() override { return 0xFFFFFFFF; }
  bool Seek(u32) override { return false; }
  void Close() override;
  u32 Read(void* buffer, u32 count) override;
  // Writes everything, or throws an exception that tells how much was sent. The limit is checked after every piece, the
  // last one included; a time-out has code 10060.
  u32 Write(const void* buffer, u32 count) override;

 private:
  const rc_ptr<Socket> socket_;
  CriticalSection writeLock_;
  const u32 writeTimeoutMs_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_SOCKET_STREAM_H_
