#include "transport/shared/ipc_introduction.h"

#include <cstring>
#include <ctime>
#include <utility>

#include "transport/shared/adaptive_spin.h"

namespace kestrun {

namespace {

constexpr u8 kRequest = 1;
constexpr u8 kReply = 2;
constexpr u32 kReplyHeaderSize = 2;
constexpr u32 kReplySize = 512;
constexpr u32 kStepMs = 5000;
// How often the listener checks that the connector that it waits for still exists.
constexpr u32 kCheckMs = 50;
// The length of a connection's name travels as a signed byte; the name is that of the listener, a full stop and up to
// ten digits.
constexpr size_t kMaxConnectionName = 127;
static_assert(IpcIntroduction::kMaxListeningName == kMaxConnectionName - 11);

std::string GetChangeName(const std::string& name) {
  return name + ".chg";
}

bool SendRequest(IpcRegion& region) {
  return region.RunLocked(IpcRing::kLockTimeoutMs, [](IpcRing& input, IpcRing& output) {
    input.Discard();
    output.Discard();
    return output.WriteQuietly(&kRequest, 1) == 1;
  });
}

bool ReadReply(IpcRegion& region, std::string& connectionName, u32 timeoutMs) {
  // A listener answers within microseconds, so spinning first is nearly always enough.
  AdaptiveSpin(AdaptiveSpin::kMostChecks).Await([&region] { return region.SeemsReadable(); });
  char reply[kReplySize] = {};
  const u32 count = region.Read(reply, sizeof reply, timeoutMs).count;
  if (count <= kReplyHeaderSize || reply[0] != kReply) return false;
  const int announced = static_cast<signed char>(reply[1]);
  const u32 length = announced > 0 ? static_cast<u32>(announced) : 0;
  if (length == 0 || length + kReplyHeaderSize > count) return false;
  reply[kReplyHeaderSize + length] = '\0';
  connectionName = reply + kReplyHeaderSize;
  return true;
}

// True if the connector has joined, even if it has left again: what it sent is still to be read.
bool WasJoined(IpcRegion& connection) {
  return connection.GetAttachTotal() >= 2;
}

}  // namespace

// The connector's part ------------------------------------------------------------------------------------------------

bool IpcIntroduction::Join(IpcRegion& region, u32 timeoutMs) {
  const std::string name = region.GetName();
  std::string connectionName;
  const bool isIntroduced = SendRequest(region) && ReadReply(region, connectionName, timeoutMs);
  region.Leave();
  if (!isIntroduced || !region.Open(connectionName)) return false;
  // The listener may be waiting for this connector to join.
  Condition(GetChangeName(name).c_str()).Signal();
  Sleep(0);
  return true;
}

// The listener's part -------------------------------------------------------------------------------------------------

IpcIntroduction::IpcIntroduction(IpcRegion& region)
    : region_(region),
      changed_(GetChangeName(region.GetName()).c_str()),
      connectLock_(GetLockName(region.GetName()).c_str()),
      // Started from the clock, so that a master that follows a killed one does not meet the names of regions that its
      // clients still have open.
      connectionCounter_(static_cast<u32>(std::time(nullptr))) {}

std::unique_ptr<IpcRegion> IpcIntroduction::Accept() {
  bool isValid = false;
  while (region_.IsOpen()) {
    if (ReadRequest(kStepMs, isValid)) return isValid ? ServeRequests() : nullptr;
    if (region_.HasLockTimedOut()) break;
  }
  return nullptr;
}

// The request that made the event may be gone: a connector that is killed between emptying the ring and writing its own
// request leaves the ring empty. So this does not wait for one.
bool IpcIntroduction::TryAccept(std::unique_ptr<IpcRegion>& connection) {
  connection.reset();
  region_.RepairHeaders();
  bool isValid = false;
  if (!ReadRequest(0, isValid)) return false;
  if (isValid) connection = ServeRequests();
  return true;
}

bool IpcIntroduction::ReadRequest(u32 timeoutMs, bool& isValid) {
  u8 request = 0;
  if (!region_.IsOpen() || region_.Read(&request, 1, timeoutMs).count != 1) return false;
  isValid = request == kRequest;
  return true;
}

// After a connector has failed, the request of the next one may be there already.
std::unique_ptr<IpcRegion> IpcIntroduction::ServeRequests() {
  bool isValid = true;
  do {
    auto connection = isValid ? ServeRequest() : nullptr;
    if (connection != nullptr) return connection;
  } while (ReadRequest(0, isValid));
  return nullptr;
}

std::unique_ptr<IpcRegion> IpcIntroduction::ServeRequest() {
  auto connection = next_ != nullptr ? std::move(next_) : MakeNext();
  if (connection == nullptr || !SendReply(connection->GetName())) return nullptr;
  AdaptiveSpin(AdaptiveSpin::kMostChecks).Await([&connection] { return WasJoined(*connection); });
  const u32 start = GetTickCount();
  while (!WasJoined(*connection)) {
    const bool isOver = GetTickCount() - start >= kStepMs || HasNewerRequest() || IsConnectorGone();
    // The check is repeated after the one that found the connector gone, because a connector joins the new region
    // before it leaves this one.
    if (WasJoined(*connection)) break;
    if (isOver || !region_.IsOpen()) return nullptr;
    changed_.Wait(kCheckMs);
  }
  return connection;
}

bool IpcIntroduction::SendReply(const std::string& connectionName) {
  u8 reply[kReplySize] = {kReply, static_cast<u8>(connectionName.size())};
  std::memcpy(reply + kReplyHeaderSize, connectionName.data(), connectionName.size());
  const u32 length = kReplyHeaderSize + static_cast<u32>(connectionName.size());
  return region_.RunLocked(kStepMs, [&](IpcRing& input, IpcRing& output) {
    // A newer request is in the ring: the connector of the older one is gone, and a reply now would be read by the
    // wrong one.
    if (input.GetUsed() > 0) return false;
    output.Discard();
    return output.WriteQuietly(reply, length) == length;
  });
}

// True if no other process has L open and none holds its lock. A connector between the two regions has neither of them
// open, but it still holds the lock. If it dies, the lock goes to the next connector, whose request comes soon.
bool IpcIntroduction::IsConnectorGone() {
  if (!region_.IsPeerGone() || !connectLock_.Lock(0)) return false;
  connectLock_.Unlock();
  return true;
}

void IpcIntroduction::PrepareNext() {
  if (next_ != nullptr || !region_.IsOpen()) return;
  try {
    next_ = MakeNext();
  } catch (const SyncException&) {
    // The next Accept tries again, and reports the failure.
  }
}

std::unique_ptr<IpcRegion> IpcIntroduction::MakeNext() {
  auto connection = std::make_unique<IpcRegion>();
  const bool isMade = connection->Create(region_.GetName() + "." + std::to_string(++connectionCounter_));
  return isMade ? std::move(connection) : nullptr;
}

}  // namespace kestrun
