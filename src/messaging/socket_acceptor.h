// Waits for TCP connections under a Reactor and hands each to a factory. Runs on the reactor's select loop.
//
// The constructors throw SocketException if the port can't be bound. A connection that the factory refuses (false)
// leaves a line on the standard error stream and the acceptor listening.
#ifndef KESTRUN_MESSAGING_SOCKET_ACCEPTOR_H_
#define KESTRUN_MESSAGING_SOCKET_ACCEPTOR_H_

#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/threads/reactor.h"
#include "transport/sockets/socket_address.h"

namespace kestrun {

class ListenSocket;
class TcpSocket;

class SocketAcceptor : public Reactor::EventHandler {
 public:
  using Factory = Functor1<bool, rc_ptr<TcpSocket>>::Type;

  SocketAcceptor(const SocketAddress& address, Factory factory, bool reuseAddress);
  // On every local interface.
  SocketAcceptor(u16 port, Factory factory, bool reuseAddress);
  ~SocketAcceptor() override;

  // Bound address, with the port that the system chose where 0 was asked for.
  SocketAddress GetLocalAddress() const;

  int GetHandle() override;
  int GetHandleType() override { return 0; }
  bool UsesThreadPool() override { return false; }
  bool HandleEvent() override;
  // Ends the listening. May come from another thread.
  void Close() override;
  bool IsClosed() override;

 private:
  rc_ptr<ListenSocket> GetSocket() const;

  const Factory factory_;
  mutable CriticalSection lock_;  // guards socket_
  rc_ptr<ListenSocket> socket_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_SOCKET_ACCEPTOR_H_
