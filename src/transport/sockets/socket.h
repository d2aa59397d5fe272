// Sockets that report failure by exception: TCP connections, UDP sockets and listening sockets, over IPv4.
//
// Every operation that fails throws SocketException with the socket error as its code, unless it says otherwise. A
// limit of 0xFFFFFFFF milliseconds is no limit.
#ifndef KESTRUN_TRANSPORT_SOCKETS_SOCKET_H_
#define KESTRUN_TRANSPORT_SOCKETS_SOCKET_H_

#include <atomic>

#include "runtime/base/critical_section.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "transport/sockets/socket_address.h"
#include "transport/sockets/socket_exception.h"

namespace kestrun {

// Owns one descriptor, which child processes don't inherit.
//
// Threads: one may send while another receives, and Close may come from any thread, also while a call is running; that
// call then fails. Two senders need a lock of their own (SocketStream has one): a Send with a limit changes the
// blocking mode for its duration, and a Receive that runs then gives 0 where it would have blocked.
class Socket : public rc_base {
 public:
  static constexpr u32 kInvalidDescriptor = 0xFFFFFFFF;

  // `type` is SOCK_STREAM or SOCK_DGRAM.
  Socket(int family, int type);
  // Takes over a descriptor.
  Socket(u32 descriptor, int family, int type);
  ~Socket() override;

  // Shuts both directions down and closes. Nothing on a closed socket.
  virtual void Close();

  // One send, which may take fewer bytes than given. With a limit, waits at most that long for room, three times over;
  // any failure closes the socket, a limit that runs out included (code 10060). A limit of 0 is a plain Send.
  virtual u32 Send(const void* data, u32 length, u32 timeoutMs);
  virtual u32 Send(const void* data, u32 length);
  // 0 where a non-blocking socket has nothing. The end of the connection throws, with code 0; the socket stays open.
  virtual u32 Receive(void* data, u32 length);

  // For datagram sockets. `from`, if given, receives the sender.
  u32 ReceiveFrom(void* data, u32 length, SocketAddress* from);
  u32 SendTo(const void* data, u32 length, const SocketAddress& to);
  // To every host of the local net, on a datagram socket; on another one it throws with code 10013.
  u32 Broadcast(const void* data, u32 length, u16 port);

  void Bind(const SocketAddress& address, bool reuseAddress);
  void Listen();
  // A new descriptor, for the caller to own.
  u32 Accept();
  // Both close the socket when they fail; a limit that runs out has code 10060. A limit of 0 is a plain Connect.
  void Connect(const SocketAddress& address);
  void Connect(const SocketAddress& address, u32 timeoutMs);

  // A failure closes the socket.
  void SetBlocking(bool blocking);
  bool IsBlocking() const { return isBlocking_; }
  // Bytes that wait to be read.
  u32 GetAvailable();
  // Read from the system once; not valid while there is none.
  SocketAddress GetLocalAddress();
  // The other end, or the sender of a UdpSocket's last datagram.
  SocketAddress GetPeerAddress();

  // SD_RECEIVE, SD_SEND or SD_BOTH. These two give what the system's call gives. They belong to the described
  // interface; the program itself does not use them.
  int Shutdown(int how);
  int SetLinger(bool on, u16 seconds);

  int GetType() const { return type_; }
  // kInvalidDescriptor once closed.
  u32 GetDescriptor() const { return descriptor_; }

 protected:
  void SetPeerAddress(const SocketAddress& address);

 private:
  SOCKET Raw() const;
  [[noreturn]] void CloseAndThrow(int error, const char* message);
  SocketAddress Ask(SocketAddress& cached, int (*ask)(SOCKET, sockaddr*, int*));

  CriticalSection addressLock_;
  SocketAddress peerAddress_;  // guarded by addressLock_
  std::atomic<u32> descriptor_;
  const int type_;
  SocketAddress localAddress_;                    // guarded by addressLock_
  std::atomic<bool> isBroadcastEnabled_ = false;  // never goes back to false
  std::atomic<bool> isBlocking_ = true;
};

class TcpSocket : public Socket {
 public:
  // An accepted connection.
  explicit TcpSocket(u32 descriptor);
  // Connects.
  TcpSocket(const SocketAddress& address, u32 timeoutMs);
  ~TcpSocket() override;
};

// Bound, with address reuse.
class UdpSocket : public Socket {
 public:
  explicit UdpSocket(const SocketAddress& address);

  // One datagram; its sender becomes the peer address.
  u32 Receive(void* data, u32 length) override;
};

// Bound and listening.
class ListenSocket : public Socket {
 public:
  ListenSocket(const SocketAddress& address, bool reuseAddress);
  // On every local interface.
  ListenSocket(u16 port, bool reuseAddress);
  ~ListenSocket() override;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_SOCKET_H_
