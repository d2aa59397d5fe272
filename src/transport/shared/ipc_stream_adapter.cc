#include "transport/shared/ipc_stream_adapter.h"

#include <utility>

namespace kestrun {

namespace {

// How long one attempt waits for room; after each the peer is checked.
constexpr u32 kTryMs = 1000;

}  // namespace

IpcSocket::StreamAdapter::StreamAdapter(rc_ptr<IpcSocket> socket) : socket_(std::move(socket)) {}

u32 IpcSocket::StreamAdapter::GetMode() {
  return kWritable;
}

u32 IpcSocket::StreamAdapter::GetAvailable() {
  const Lock lock(lock_);
  return socket_ ? socket_->GetAvailable() : 0;
}

void IpcSocket::StreamAdapter::Close() {
  const Lock lock(lock_);
  socket_.Reset();
}

u32 IpcSocket::StreamAdapter::Write(const void* buffer, u32 count) {
  const Lock lock(lock_);
  const u8* next = static_cast<const u8*>(buffer);
  u32 remaining = count;
  while (socket_ && remaining > 0) {
    const Result result = socket_->Write(next, remaining, kTryMs);
    next += result.count;
    remaining -= result.count;
    if (!result.isConnected && remaining > 0) throw StreamException("IpcSocket::StreamAdapter::Write()");
  }
  return count;
}

// Defined here and not in ipc_socket.cc, so that the socket does not depend on the adapter, which depends on the
// socket.
void IpcSocket::GetStream(rc_ptr<Stream>& out) {
  out = new StreamAdapter(this);
}

}  // namespace kestrun
