#include "messaging/ipc_channel.h"

#include <ctime>
#include <utility>

namespace kestrun {

namespace {

// The most that one ReadInto takes. Without a bound, a peer that writes as fast as this end reads would keep the reader
// from delivering messages and from serving other channels.
constexpr u32 kMaxBytesAtOnce = 0x100000;
// The size of one read in the middle of a large message: that of a ring.
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

// A client may be silent for as long as its job runs; its death is seen by the handle count, so no pings are needed.
std::int64_t IpcChannel::GetLastActivity() {
  return std::time(nullptr);
}

// Only the first read waits. Later ones take what is there: a full block may have been the last.
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
  // The bound was reached with bytes left: the event is set again, since the peer has announced them already.
  socket_->SignalReader();
  return true;
}

}  // namespace kestrun
