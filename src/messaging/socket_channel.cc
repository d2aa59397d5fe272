#include "messaging/socket_channel.h"

#include <ctime>
#include <utility>

#include "transport/sockets/socket.h"
#include "transport/sockets/socket_stream.h"

namespace kestrun {

namespace {

// The most that one ReadInto takes; select reports the socket again if there is more.
constexpr u32 kMaxBytesAtOnce = 0x100000;

}  // namespace

SocketChannel::SocketChannel(rc_ptr<Socket> socket, bool blocking) : socket_(std::move(socket)), lastActivity_(Now()) {
  socket_->SetBlocking(blocking);
  output_ = new SocketStream(socket_);
}

SocketChannel::~SocketChannel() = default;

std::int64_t SocketChannel::Now() {
  return std::time(nullptr);
}

int SocketChannel::GetHandle() {
  return static_cast<int>(socket_->GetDescriptor());
}

bool SocketChannel::Connect(const Address& address, u32 timeoutMs) {
  SocketAddress target;
  if (!address.GetSocketAddress(target)) return false;
  try {
    socket_->Connect(target, timeoutMs);
  } catch (const SocketException&) {
    return false;
  }
  lastActivity_ = Now();
  return true;
}

bool SocketChannel::Broadcast(rc_ptr<Message> message, u16 port) {
  if (!IsDatagram()) return false;
  Message::Streams frame;
  BuildFrame(*message, frame);
  // A datagram is sent by one call; a message with large data consists of several streams.
  if (frame.size() > 1) return false;
  const auto& stream = static_cast<const MemoryStream&>(*frame.front());
  socket_->Broadcast(stream.GetData(), stream.GetSize(), port);
  return true;
}

Address SocketChannel::GetAddress() {
  return Address(socket_->GetPeerAddress(), IsDatagram() ? Address::kUdp : Address::kTcp, false);
}

bool SocketChannel::IsDatagram() {
  return socket_->GetType() == SOCK_DGRAM;
}

// Reads blocks until one is not full. A datagram socket is read once, since each read gives one whole datagram.
bool SocketChannel::ReadInto(MemoryStream& buffer, int) {
  u8 block[kReadBlock];
  for (u32 total = 0; total < kMaxBytesAtOnce;) {
    u32 count;
    try {
      count = socket_->Receive(block, sizeof block);
    } catch (const SocketException&) {
      return false;
    }
    if (count > 0 && buffer.Append(block, count) == 0) return false;
    total += count;
    if (count < sizeof block || IsDatagram()) break;
  }
  lastActivity_ = Now();
  return true;
}

}  // namespace kestrun
