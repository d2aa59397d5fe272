#include "transport/sockets/socket.h"

#include <algorithm>
#include <climits>

namespace kestrun {

namespace {

// How many connections wait to be accepted; more are refused or retried by the system.
constexpr int kBacklog = 5;

int Size(u32 length) {
  return static_cast<int>(std::min<u32>(length, INT_MAX));
}

[[noreturn]] void ThrowLast(const char* message) {
  throw SocketException(WSAGetLastError(), message);
}

// Winsock's handles are inheritable unless this is said, and a child that has one keeps the connection open.
void KeepFromChildren(SOCKET descriptor) {
  SetHandleInformation(reinterpret_cast<HANDLE>(descriptor), HANDLE_FLAG_INHERIT, 0);
}

SOCKET Create(int family, int type) {
  const SOCKET created = socket(family, type, 0);
  if (created == INVALID_SOCKET) ThrowLast("In socket()");
  KeepFromChildren(created);
  return created;
}

// As select does: 1 if the socket is writable, 0 after the limit, or SOCKET_ERROR.
int WaitUntilWritable(SOCKET descriptor, u32 timeoutMs) {
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(descriptor, &writable);
  timeval limit{};
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(timeoutMs / 1000);
  limit.tv_usec = static_cast<decltype(limit.tv_usec)>(timeoutMs % 1000 * 1000);
  return select(0, nullptr, &writable, nullptr, timeoutMs == INFINITE ? nullptr : &limit);
}

}  // namespace

Socket::Socket(int family, int type) : descriptor_(static_cast<u32>(Create(family, type))), type_(type) {}

Socket::Socket(u32 descriptor, int, int type) : descriptor_(descriptor), type_(type) {
  if (descriptor == kInvalidDescriptor) throw SocketException("Bad socket handle passed to Socket ctor");
}

Socket::~Socket() {
  Socket::Close();
}

SOCKET Socket::Raw() const {
  const u32 descriptor = descriptor_;
  return descriptor == kInvalidDescriptor ? INVALID_SOCKET : static_cast<SOCKET>(descriptor);
}

void Socket::CloseAndThrow(int error, const char* message) {
  Close();
  throw SocketException(error, message);
}

void Socket::Close() {
  const u32 descriptor = descriptor_.exchange(kInvalidDescriptor);
  if (descriptor == kInvalidDescriptor) return;
  // The shutdown wakes a thread that is in a call on this socket; the exchange above lets one thread close.
  shutdown(descriptor, SD_BOTH);
  closesocket(descriptor);
}

u32 Socket::Send(const void* data, u32 length, u32 timeoutMs) {
  // A socket can be writable and full again when send is called, so the wait is repeated.
  constexpr int kAttempts = 3;
  if (timeoutMs == 0) return Send(data, length);
  const bool wasBlocking = IsBlocking();
  SetBlocking(false);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const int sent = send(Raw(), static_cast<const char*>(data), Size(length), 0);
    if (sent >= 0) {
      SetBlocking(wasBlocking);
      return static_cast<u32>(sent);
    }
    const int error = WSAGetLastError();
    if (error != WSAEWOULDBLOCK) CloseAndThrow(error, "In send()");
    const int ready = WaitUntilWritable(Raw(), timeoutMs);
    if (ready == 0) CloseAndThrow(WSAETIMEDOUT, "Timeout in send()");
    if (ready == SOCKET_ERROR) CloseAndThrow(WSAGetLastError(), "In send()");
  }
  CloseAndThrow(0, "Failed all attempts at send()");
}

u32 Socket::Send(const void* data, u32 length) {
  const int sent = send(Raw(), static_cast<const char*>(data), Size(length), 0);
  if (sent < 0) ThrowLast("In send()");
  return static_cast<u32>(sent);
}

u32 Socket::Receive(void* data, u32 length) {
  for (;;) {
    const int received = recv(Raw(), static_cast<char*>(data), Size(length), 0);
    if (received > 0) return static_cast<u32>(received);
    if (received == 0) throw SocketException(0, "Socket closed in recv()");
    const int error = WSAGetLastError();
    if (error != WSAEWOULDBLOCK) throw SocketException(error, "In recv()");
    if (!IsBlocking()) return 0;
    // Another thread's Send with a limit had made the socket non-blocking for a moment, so the call is repeated.
  }
}

u32 Socket::ReceiveFrom(void* data, u32 length, SocketAddress* from) {
  sockaddr_in sender{};
  int size = sizeof sender;
  auto* const raw = reinterpret_cast<sockaddr*>(&sender);
  const int received = recvfrom(Raw(), static_cast<char*>(data), Size(length), 0, raw, &size);
  if (received == 0) throw SocketException(0, "Socket closed in recvfrom()");
  if (received < 0) ThrowLast("In recvfrom()");
  if (from != nullptr) *from = SocketAddress(raw, static_cast<u32>(size));
  return static_cast<u32>(received);
}

u32 Socket::SendTo(const void* data, u32 length, const SocketAddress& to) {
  const int sent =
      sendto(Raw(), static_cast<const char*>(data), Size(length), 0, to.GetRaw(), static_cast<int>(to.GetSize()));
  if (sent < 0) ThrowLast("In sendto()");
  return static_cast<u32>(sent);
}

u32 Socket::Broadcast(const void* data, u32 length, u16 port) {
  if (type_ == SOCK_STREAM) throw SocketException(WSAEACCES, "Broadcast not allowed on stream sockets.");
  if (!isBroadcastEnabled_) {
    const int on = 1;
    if (setsockopt(Raw(), SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on), sizeof on) != 0) {
      ThrowLast("Setting broadcast option");
    }
    isBroadcastEnabled_ = true;
  }
  sockaddr_in everyone{};
  everyone.sin_family = AF_INET;
  everyone.sin_port = htons(port);
  everyone.sin_addr.s_addr = INADDR_BROADCAST;
  const int sent = sendto(Raw(), static_cast<const char*>(data), Size(length), 0,
                          reinterpret_cast<const sockaddr*>(&everyone), sizeof everyone);
  if (sent < 0) ThrowLast("In broadcast sendto()");
  return static_cast<u32>(sent);
}

void Socket::Bind(const SocketAddress& address, bool reuseAddress) {
  if (reuseAddress) {
    const int on = 1;
    setsockopt(Raw(), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof on);
  }
  if (bind(Raw(), address.GetRaw(), static_cast<int>(address.GetSize())) != 0) ThrowLast("In bind()");
  GetLocalAddress();
}

void Socket::Listen() {
  if (listen(Raw(), kBacklog) != 0) ThrowLast("listen() failed.");
}

u32 Socket::Accept() {
  const SOCKET accepted = accept(Raw(), nullptr, nullptr);
  if (accepted == INVALID_SOCKET) ThrowLast("In accept()");
  KeepFromChildren(accepted);
  return static_cast<u32>(accepted);
}

void Socket::Connect(const SocketAddress& address) {
  if (connect(Raw(), address.GetRaw(), static_cast<int>(address.GetSize())) != 0) {
    CloseAndThrow(WSAGetLastError(), "In connect()");
  }
}

void Socket::Connect(const SocketAddress& address, u32 timeoutMs) {
  if (timeoutMs == 0) {
    Connect(address);
    return;
  }
  const bool wasBlocking = IsBlocking();
  SetBlocking(false);
  if (connect(Raw(), address.GetRaw(), static_cast<int>(address.GetSize())) != 0) {
    const int error = WSAGetLastError();
    if (error != WSAEWOULDBLOCK) CloseAndThrow(error, "In non-blocking connect()");
    const int ready = WaitUntilWritable(Raw(), timeoutMs);
    if (ready == 0) CloseAndThrow(WSAETIMEDOUT, "Timeout waiting for connection");
    if (ready == SOCKET_ERROR) CloseAndThrow(WSAGetLastError(), "Waiting for connect timeout");
  }
  SetBlocking(wasBlocking);
}

void Socket::SetBlocking(bool blocking) {
  if (isBlocking_ == blocking) return;
  u_long nonBlocking = blocking ? 0 : 1;
  if (ioctlsocket(Raw(), static_cast<long>(FIONBIO), &nonBlocking) != 0) {
    CloseAndThrow(WSAGetLastError(), "Putting socket into (non)blocking mode");
  }
  isBlocking_ = blocking;
}

u32 Socket::GetAvailable() {
  u_long available = 0;
  if (ioctlsocket(Raw(), static_cast<long>(FIONREAD), &available) != 0) ThrowLast("Getting available bytes");
  return static_cast<u32>(available);
}

SocketAddress Socket::Ask(SocketAddress& cached, int (*ask)(SOCKET, sockaddr*, int*)) {
  const Lock lock(addressLock_);
  // Asked once: a peer that has gone has no address any more, but messages still name it.
  if (cached.IsValid()) return cached;
  sockaddr_in found{};
  int size = sizeof found;
  auto* const raw = reinterpret_cast<sockaddr*>(&found);
  if (ask(Raw(), raw, &size) == 0) cached = SocketAddress(raw, static_cast<u32>(size));
  return cached;
}

SocketAddress Socket::GetLocalAddress() {
  return Ask(localAddress_, [](SOCKET raw, sockaddr* address, int* size) { return getsockname(raw, address, size); });
}

SocketAddress Socket::GetPeerAddress() {
  return Ask(peerAddress_, [](SOCKET raw, sockaddr* address, int* size) { return getpeername(raw, address, size); });
}

void Socket::SetPeerAddress(const SocketAddress& address) {
  const Lock lock(addressLock_);
  peerAddress_ = address;
}

int Socket::Shutdown(int how) {
  return shutdown(Raw(), how);
}

int Socket::SetLinger(bool on, u16 seconds) {
  const linger value{static_cast<u16>(on ? 1 : 0), seconds};
  return setsockopt(Raw(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&value), sizeof value);
}

TcpSocket::TcpSocket(u32 descriptor) : Socket(descriptor, AF_INET, SOCK_STREAM) {}

TcpSocket::TcpSocket(const SocketAddress& address, u32 timeoutMs) : Socket(AF_INET, SOCK_STREAM) {
  Connect(address, timeoutMs);
}

TcpSocket::~TcpSocket() = default;

UdpSocket::UdpSocket(const SocketAddress& address) : Socket(AF_INET, SOCK_DGRAM) {
  Bind(address, true);
}

u32 UdpSocket::Receive(void* data, u32 length) {
  SocketAddress sender;
  const u32 received = ReceiveFrom(data, length, &sender);
  SetPeerAddress(sender);
  return received;
}

ListenSocket::ListenSocket(const SocketAddress& address, bool reuseAddress) : Socket(AF_INET, SOCK_STREAM) {
  Bind(address, reuseAddress);
  Listen();
}

ListenSocket::ListenSocket(u16 port, bool reuseAddress) : ListenSocket(SocketAddress(port), reuseAddress) {}

ListenSocket::~ListenSocket() = default;

}  // namespace kestrun
