// The socket road of the dispatcher. A dispatcher with port 0 takes none of it.
#include <string>

#include "messaging/message_dispatcher.h"
#include "messaging/socket_acceptor.h"
#include "messaging/socket_channel.h"
#include "transport/socket.h"

namespace kestrun {

bool MessageDispatcher::OpenSocketRoad() {
  if (port_ == 0 || host_.empty()) return true;
  try {
    const SocketAddress address(host_, port_);
    const rc_ptr<SocketAcceptor> acceptor(
        new SocketAcceptor(address, MakeDelegate(&MessageDispatcher::OnNewSocketConnection, this), true));
    if (!reactor_.Register(acceptor.Get())) {
      ReportError("Could not register SocketAcceptor");
      return false;
    }
    socketAcceptor_ = acceptor;
    datagramChannel_ = new SocketChannel(new UdpSocket(address), false);
  } catch (const SocketException& failure) {
    ReportError("Failed to open listening TCP port " + std::to_string(port_) +
                " error=" + std::to_string(failure.GetCode()) + "\n");
    return false;
  }
  if (RegisterChannel(datagramChannel_)) return true;
  ReportError("Could not register datagram channel");
  return false;
}

bool MessageDispatcher::OnNewSocketConnection(TcpSocket* socket) {
  if (socket == nullptr) return false;
  if (RegisterChannel(new SocketChannel(socket, false))) return true;
  ReportError("Could not register SocketChannel in OnNewSocketConnection()");
  return false;
}

}  // namespace kestrun
