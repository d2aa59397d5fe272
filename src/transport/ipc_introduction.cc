// How two ends meet: the part of IpcSocket that works on the region of a listening name.
//
// One connector at a time is on that region, since it holds <name>.lck throughout. One that dies there leaves its bytes
// behind, and the attach counts. Two rules keep them from the next one:
//
//   - A connector empties both rings and writes its request in one step, under the locks of both rings (.c2s first).
//   - The listener writes its reply in one step under the same locks, and only if no other request has come since the
//     one that it answers. While it waits for the connector it gives up as soon as there is another request.
//
// So each reply that a connector reads is the answer to its own request. A connector always leaves a byte for the
// listener to take, which makes "another request has come" the same as "there is something to read".
#include <cstring>

#include "transport/handle_count.h"
#include "transport/ipc_socket.h"
#include "transport/lookout.h"

namespace kestrun {

namespace {

constexpr u8 kRequest = 1;
constexpr u8 kReply = 2;
constexpr u32 kReplyHeaderSize = 2;
constexpr u32 kReplySize = 512;
constexpr u32 kStepMs = 5000;
// How often the listener looks whether the connector that it waits for is still there.
constexpr u32 kLookMs = 50;
// The length of a connection's name travels as a signed byte; the name is that of the listener, a full stop and up to
// ten digits.
constexpr size_t kMaxConnectionName = 127;
static_assert(IpcSocket::kMaxListeningName == kMaxConnectionName - 11);

bool LeavesRoomForConnectionNames(const std::string& name) {
  return name.size() <= IpcSocket::kMaxListeningName;
}

}  // namespace

bool IpcSocket::Listen(const std::string& name) {
  if (!LeavesRoomForConnectionNames(name) || !CreateRegion(name)) return false;
  const Lock lock(inputLock_);
  changeEvent_ = std::make_shared<Condition>((name + ".chg").c_str());
  connectLock_ = std::make_shared<Mutex>((name + ".lck").c_str());
  state_ = State::kListening;
  return true;
}

bool IpcSocket::Connect(const std::string& name, u32 timeoutMs) {
  if (isAccepting_ || !LeavesRoomForConnectionNames(name)) return false;
  const NamedMutexLock turn(name + ".lck");
  if (!OpenRegion(name)) return false;
  state_ = State::kConnecting;
  std::string connectionName;
  const bool isIntroduced = Introduce(connectionName, timeoutMs);
  DestroyRegion();
  if (!isIntroduced || !OpenRegion(connectionName)) {
    state_ = State::kFailed;
    return false;
  }
  Condition((name + ".chg").c_str()).Signal();
  Sleep(0);
  state_ = State::kConnected;
  return true;
}

bool IpcSocket::Introduce(std::string& connectionName, u32 timeoutMs) {
  return SendRequest() && ReadReply(connectionName, timeoutMs);
}

bool IpcSocket::SendRequest() {
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ == nullptr) return false;
  {
    const IpcRing::Turn toListener(*output_);
    const IpcRing::Turn fromListener(*input_);
    if (!toListener || !fromListener) return false;
    input_->Discard();
    output_->Discard();
    if (output_->WriteQuietly(&kRequest, 1) != 1) return false;
  }
  output_->WakeReader();
  return true;
}

bool IpcSocket::ReadReply(std::string& connectionName, u32 timeoutMs) {
  // Each step of an introduction is a matter of some microseconds.
  Lookout(Lookout::kMostLooks).Await([this] {
    const Lock lock(inputLock_);
    return input_ == nullptr || !input_->SeemsEmpty();
  });
  char reply[kReplySize] = {};
  const u32 count = ReadRing(reply, sizeof reply, timeoutMs);
  if (count <= kReplyHeaderSize || reply[0] != kReply) return false;
  const int announced = static_cast<signed char>(reply[1]);
  const u32 length = announced > 0 ? static_cast<u32>(announced) : 0;
  if (length == 0 || length + kReplyHeaderSize > count) return false;
  reply[kReplyHeaderSize + length] = '\0';
  connectionName = reply + kReplyHeaderSize;
  return true;
}

IpcSocket* IpcSocket::Accept() {
  std::shared_ptr<Condition> changed;
  std::shared_ptr<Mutex> connectLock;
  {
    const Lock lock(inputLock_);
    changed = changeEvent_;
    connectLock = connectLock_;
  }
  if (changed == nullptr) return nullptr;
  do {
    if (!ReadRequest()) return nullptr;
    if (auto connection = ServeRequest(*changed, *connectLock)) return connection.release();
  } while (HasNewerRequest());
  return nullptr;
}

bool IpcSocket::ReadRequest() {
  u8 request = 0;
  while (GetState() == State::kListening) {
    if (ReadRing(&request, 1, kStepMs) == 1 || IsHeldUp()) break;
  }
  return request == kRequest;
}

void IpcSocket::PrepareNext() {
  {
    const Lock lock(inputLock_);
    if (next_ != nullptr || GetState() != State::kListening) return;
  }
  try {
    auto next = MakeNext();
    const Lock lock(inputLock_);
    if (GetState() == State::kListening) next_ = std::move(next);
  } catch (const SyncException&) {
    // Accept tries again, and tells.
  }
}

std::unique_ptr<IpcSocket> IpcSocket::MakeNext() {
  auto connection = std::make_unique<IpcSocket>();
  const bool isMade = connection->CreateRegion(name_ + "." + std::to_string(++connectionCounter_));
  return isMade ? std::move(connection) : nullptr;
}

std::unique_ptr<IpcSocket> IpcSocket::TakeNext() {
  {
    const Lock lock(inputLock_);
    if (next_ != nullptr) return std::move(next_);
  }
  return MakeNext();
}

std::unique_ptr<IpcSocket> IpcSocket::ServeRequest(Condition& changed, Mutex& connectLock) {
  auto connection = TakeNext();
  if (connection == nullptr || !SendReply(connection->GetName())) return nullptr;
  Lookout(Lookout::kMostLooks).Await([&connection] { return connection->WasJoined(); });
  const u32 start = GetTickCount();
  while (!connection->WasJoined()) {
    const bool isOver = GetTickCount() - start >= kStepMs || HasNewerRequest() || IsConnectorGone(connectLock);
    // A connector joins before it leaves, so the last look comes after the one that found it gone.
    if (connection->WasJoined()) break;
    if (isOver || GetState() != State::kListening) return nullptr;
    changed.Wait(kLookMs);
  }
  connection->state_ = State::kConnected;
  return connection;
}

bool IpcSocket::SendReply(const std::string& connectionName) {
  u8 reply[kReplySize] = {kReply, static_cast<u8>(connectionName.size())};
  std::memcpy(reply + kReplyHeaderSize, connectionName.data(), connectionName.size());
  const u32 length = kReplyHeaderSize + static_cast<u32>(connectionName.size());
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ == nullptr) return false;
  {
    const IpcRing::Turn fromConnector(*input_, kStepMs);
    const IpcRing::Turn toConnector(*output_, kStepMs);
    if (!fromConnector || !toConnector || input_->GetUsed() > 0) return false;
    output_->Discard();
    if (output_->WriteQuietly(reply, length) != length) return false;
  }
  output_->WakeReader();
  return true;
}

bool IpcSocket::IsHeldUp() {
  const Lock lock(inputLock_);
  return input_ != nullptr && input_->IsHeldUp();
}

bool IpcSocket::HasNewerRequest() {
  return GetState() == State::kListening && GetAvailable() > 0;
}

// Nobody but us on the listening name, and nobody who has the right to be there. Between the two regions a connector
// is on neither, but it still holds the lock; a death gives the lock to the next in the line, who soon asks.
bool IpcSocket::IsConnectorGone(Mutex& connectLock) {
  if (!IsPeerGone() || !connectLock.Lock(0)) return false;
  connectLock.Unlock();
  return true;
}

// A connector that has come and gone again counts too: what it sent is still to be read.
bool IpcSocket::WasJoined() {
  const Lock lock(inputLock_);
  return input_ != nullptr && input_->GetAttachTotal() >= 2;
}

}  // namespace kestrun
