// A message channel over a TCP connection or a UDP socket. On UDP the peer is the sender of the last datagram.
//
// Shares the socket with its output stream. Threads and failures are those of MessageChannel; the constructor throws
// SocketException.
#ifndef KESTRUN_MESSAGING_SOCKET_CHANNEL_H_
#define KESTRUN_MESSAGING_SOCKET_CHANNEL_H_

#include <atomic>
#include <cstdint>

#include "messaging/message_channel.h"
#include "runtime/base/rc_ptr.h"

namespace kestrun {

class Socket;

class SocketChannel : public MessageChannel {
 public:
  // Takes the socket and puts it into this mode. Throws SocketException.
  SocketChannel(rc_ptr<Socket> socket, bool blocking);
  ~SocketChannel() override;

  int GetHandle() override;
  int GetHandleType() override { return 0; }
  bool IsClosed() override { return GetHandle() == kNoHandle; }
  bool Connect(const Address& address, u32 timeoutMs) override;
  bool Broadcast(rc_ptr<Message> message, u16 port) override;
  Address GetAddress() override;
  bool IsDatagram() override;
  // The last connect or receive; always now on UDP.
  std::int64_t GetLastActivity() override { return IsDatagram() ? Now() : lastActivity_.load(); }
  // The timeout plays no part: the socket's mode decides whether this blocks.
  bool ReadInto(MemoryStream& buffer, int timeoutMs) override;

 private:
  static std::int64_t Now();

  const rc_ptr<Socket> socket_;
  std::atomic<std::int64_t> lastActivity_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_SOCKET_CHANNEL_H_
