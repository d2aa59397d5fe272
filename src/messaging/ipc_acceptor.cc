#include "messaging/ipc_acceptor.h"

#include <cstdio>
#include <utility>

namespace kestrun {

IpcAcceptor::IpcAcceptor(const std::string& name, Factory factory, Room hasRoom)
    : factory_(std::move(factory)), hasRoom_(std::move(hasRoom)), socket_(new IpcSocket()) {
  if (!socket_->Listen(name)) socket_.Reset();
}

IpcAcceptor::~IpcAcceptor() {
  IpcAcceptor::Close();
}

rc_ptr<IpcSocket> IpcAcceptor::GetSocket() const {
  const Lock lock(lock_);
  return socket_;
}

int IpcAcceptor::GetHandle() {
  const rc_ptr<IpcSocket> socket = GetSocket();
  // Without room the reactor does not wait for this handler. Connectors wait in their own Connect meanwhile.
  return socket && (!hasRoom_ || hasRoom_()) ? socket->GetWaitHandle() : -1;
}

bool IpcAcceptor::HandleEvent() {
  const rc_ptr<IpcSocket> socket = GetSocket();
  if (!socket) return false;
  rc_ptr<IpcSocket> connection;
  // The request may have been served together with the one before it, so an event without a request is no failure.
  if (!socket->TryAccept(connection) || !IsListening()) return true;
  if (!connection) {
    std::fputs("IpcAcceptor - IpcSocket::Accept() return NULL!\n", stderr);
  } else if (factory_ && !factory_(connection)) {
    std::fputs("IpcAcceptor : factory-function failed!\n", stderr);
  }
  return true;
}

void IpcAcceptor::Prepare() {
  const rc_ptr<IpcSocket> socket = GetSocket();
  if (socket) socket->PrepareNext();
}

void IpcAcceptor::Close() {
  const rc_ptr<IpcSocket> socket = GetSocket();
  if (!socket) return;
  socket->Close();
  const Lock lock(lock_);
  socket_.Reset();
}

}  // namespace kestrun
