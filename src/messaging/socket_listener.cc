#include "messaging/socket_listener.h"

#include <utility>

#include "messaging/socket_channel.h"
#include "transport/sockets/socket.h"

namespace kestrun {

void SocketListener::Open(SocketAcceptor::Factory factory) {
  if (port_ == 0 || host_.empty()) return;
  const SocketAddress address(host_, port_);
  // Address reuse, so that a new master can bind the port while connections of the last one linger.
  acceptor_ = new SocketAcceptor(address, std::move(factory), true);
  datagramChannel_ = new SocketChannel(new UdpSocket(address), false);
}

void SocketListener::Close() {
  if (acceptor_) acceptor_->Close();
  acceptor_.Reset();
  if (datagramChannel_) datagramChannel_->Close();
  datagramChannel_.Reset();
}

}  // namespace kestrun
