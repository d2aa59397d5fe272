// Where a dispatcher can be reached over the network: a port with a TCP acceptor and a UDP channel.
//
// Threads: one at a time.
#ifndef KESTRUN_MESSAGING_SOCKET_LISTENER_H_
#define KESTRUN_MESSAGING_SOCKET_LISTENER_H_

#include <string>

#include "messaging/message_channel.h"
#include "messaging/socket_acceptor.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

class SocketListener {
 public:
  // With port 0 or no host it opens nothing.
  SocketListener(const std::string& host, u16 port) : host_(host), port_(port) {}

  // Binds both sockets; `factory` takes the TCP connections. Throws SocketException.
  void Open(SocketAcceptor::Factory factory);
  void Close();

  u16 GetPort() const { return port_; }
  // Both null until opened.
  const rc_ptr<SocketAcceptor>& GetAcceptor() const { return acceptor_; }
  const rc_ptr<MessageChannel>& GetDatagramChannel() const { return datagramChannel_; }

 private:
  const std::string host_;
  const u16 port_;
  rc_ptr<SocketAcceptor> acceptor_;
  rc_ptr<MessageChannel> datagramChannel_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_SOCKET_LISTENER_H_
