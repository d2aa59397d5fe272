#include "messaging/ipc_channel.h"

#include <ctime>
#include <utility>

namespace kestrun {

namespace {

// What one ReadInto takes at most, so that a peer that writes as fast as we read does not keep the reader from
// delivering, nor the other channels waiting.
constexpr u32 kMaxBytesAtOnce = 0x100000;
// What is asked for in one read in the middle of a large message: a ring.
constexpr u32 kLargeReadBlock = 0x10000;

}  // namespace

IpcChannel::IpcChannel(rc_ptr<IpcSocket> socket) : socket_(std::move(socket)) {
  socket_->GetStream(output_);
}

IpcChannel::~IpcChannel() {
  IpcChannel::Close();
}

void IpcChannel::Close() {
  isClosed_ = true;
  socket_->Close();
}

bool IpcChannel::Connect(const Address& address, u32 timeoutMs) {
  if (address.GetKind() != Address::kIpc) return false;
  socket_->Close();
  isClosed_ = false;
  return socket_->Connect(address.GetText(), timeoutMs);
}

Address IpcChannel::GetAddress() {
  return Address(Address::kIpc, socket_->GetName());
}

std::int64_t IpcChannel::GetLastActivity() {
  return std::time(nullptr);
}

// Only the first read waits: a block that came full may have been all there was.
bool IpcChannel::ReadInto(MemoryStream& buffer, int timeoutMs) {
  u32 limitMs = static_cast<u32>(timeoutMs);
  for (u32 total = 0; total < kMaxBytesAtOnce;) {
    const u32 block = buffer.GetSize() < kLargeReadBlock ? kReadBlock : kLargeReadBlock;
    u8* const room = buffer.MakeRoom(block);
    if (room == nullptr) return false;
    const IpcSocket::Result result = socket_->Read(room, block, limitMs);
    buffer.Extend(result.count);
    total += result.count;
    if (timeoutMs > 0 && total == 0) return false;
    if (result.count < block) return result.isConnected;
    limitMs = 0;
  }
  socket_->SignalReader();
  return true;
}

}  // namespace kestrun
