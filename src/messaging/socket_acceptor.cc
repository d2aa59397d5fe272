#include "messaging/socket_acceptor.h"

#include <cstdio>
#include <utility>

#include "transport/sockets/socket.h"

namespace kestrun {

SocketAcceptor::SocketAcceptor(const SocketAddress& address, Factory factory, bool reuseAddress)
    : factory_(std::move(factory)), socket_(new ListenSocket(address, reuseAddress)) {}

SocketAcceptor::SocketAcceptor(u16 port, Factory factory, bool reuseAddress)
    : factory_(std::move(factory)), socket_(new ListenSocket(port, reuseAddress)) {}

SocketAcceptor::~SocketAcceptor() {
  SocketAcceptor::Close();
}

rc_ptr<ListenSocket> SocketAcceptor::GetSocket() const {
  const Lock lock(lock_);
  return socket_;
}

SocketAddress SocketAcceptor::GetLocalAddress() const {
  const rc_ptr<ListenSocket> socket = GetSocket();
  return socket ? socket->GetLocalAddress() : SocketAddress();
}

int SocketAcceptor::GetHandle() {
  const rc_ptr<ListenSocket> socket = GetSocket();
  return socket ? static_cast<int>(socket->GetDescriptor()) : -1;
}

bool SocketAcceptor::IsClosed() {
  return !GetSocket();
}

bool SocketAcceptor::HandleEvent() {
  const rc_ptr<ListenSocket> socket = GetSocket();
  if (!socket) return false;
  const u32 descriptor = socket->Accept();
  if (descriptor == Socket::kInvalidDescriptor) throw SocketException(WSAENOTSOCK, "accept() failed");
  // If the factory does not keep the connection, it is closed with this reference.
  const rc_ptr<TcpSocket> connection(new TcpSocket(descriptor));
  if (factory_ && !factory_(connection)) std::fputs("SocketAcceptor : factory-function failed!\n", stderr);
  return true;
}

void SocketAcceptor::Close() {
  const rc_ptr<ListenSocket> socket = GetSocket();
  if (!socket) return;
  socket->Close();
  const Lock lock(lock_);
  socket_.Reset();
}

}  // namespace kestrun
