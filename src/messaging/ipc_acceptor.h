// Waits for IPC connections under a Reactor and hands each to a factory. Runs on the reactor's wait loop.
//
// If the name can't be listened on, the acceptor has no socket: it can be registered, and no connection ever comes.
// While there is no room for a connection none is accepted, and connectors wait, within their own limits. A connection
// that fails, or that the factory refuses (false), leaves a line on the standard error stream and the acceptor
// listening.
#ifndef KESTRUN_MESSAGING_IPC_ACCEPTOR_H_
#define KESTRUN_MESSAGING_IPC_ACCEPTOR_H_

#include <string>

#include "runtime/base/critical_section.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/threads/reactor.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {

class IpcAcceptor : public Reactor::EventHandler {
 public:
  using Factory = Functor1<bool, rc_ptr<IpcSocket>>::Type;

  // Asked before each wait, on the reactor's thread, which holds no lock then.
  using Room = Functor0<bool>::Type;

  explicit IpcAcceptor(const std::string& name, Factory factory, Room hasRoom = Room());
  ~IpcAcceptor() override;

  bool IsListening() const { return static_cast<bool>(GetSocket()); }

  int GetHandle() override;
  int GetHandleType() override { return 1; }
  bool UsesThreadPool() override { return false; }
  bool HandleEvent() override;
  // Ends the listening. May come from another thread.
  void Close() override;
  bool IsClosed() override { return !IsListening(); }

  // Makes now what the next connection needs. To be called on the reactor's wait loop.
  void Prepare();

 private:
  rc_ptr<IpcSocket> GetSocket() const;

  const Factory factory_;
  const Room hasRoom_;            // empty: always
  mutable CriticalSection lock_;  // guards socket_
  rc_ptr<IpcSocket> socket_;
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_IPC_ACCEPTOR_H_
