#include "transport/shared/ipc_socket.h"

#include <utility>

#include "platform/host.h"
#include "transport/shared/introduction_turn.h"
#include "transport/sockets/socket_exception.h"

namespace kestrun {

namespace {

// A blocked reader looks for a dead peer this often: a process that is killed sets no event.
constexpr u32 kSliceMs = 1000;
constexpr u32 kBothEnds = 2;

std::string DescribeObstacle(u32 holder) {
  const std::string process = holder != 0 ? "process " + std::to_string(holder) : "another process";
  return process + " keeps other clients from connecting to the master; let it go on, or end it";
}

}  // namespace

IpcSocket::IpcSocket() : region_(std::make_unique<IpcRegion>()) {}

IpcSocket::IpcSocket(std::unique_ptr<IpcRegion> region) : region_(std::move(region)), state_(State::kConnected) {}

IpcSocket::~IpcSocket() {
  Close();
}

bool IpcSocket::Listen(const std::string& name) {
  if (!IpcIntroduction::IsListeningName(name) || !region_->Create(name)) return false;
  const Lock lock(introductionLock_);
  introduction_ = std::make_shared<IpcIntroduction>(*region_);
  state_ = State::kListening;
  return true;
}

bool IpcSocket::Connect(const std::string& name, u32 timeoutMs) {
  if (region_->IsOwner() || !IpcIntroduction::IsListeningName(name)) return false;
  obstacle_.clear();
  const IntroductionTurn turn(IpcIntroduction::GetLockName(name), timeoutMs);
  if (!turn) {
    obstacle_ = DescribeObstacle(turn.GetHolder());
    state_ = State::kFailed;
    return false;
  }
  if (!region_->Open(name)) return false;
  state_ = State::kConnecting;
  const bool hasJoined = IpcIntroduction::Join(*region_, timeoutMs);
  state_ = hasJoined ? State::kConnected : State::kFailed;
  return hasJoined;
}

rc_ptr<IpcSocket> IpcSocket::Accept() {
  const auto introduction = GetIntroduction();
  return introduction != nullptr ? MakeConnected(introduction->Accept()) : nullptr;
}

bool IpcSocket::TryAccept(rc_ptr<IpcSocket>& connection) {
  connection.Reset();
  const auto introduction = GetIntroduction();
  std::unique_ptr<IpcRegion> region;
  if (introduction == nullptr || !introduction->TryAccept(region)) return false;
  connection = MakeConnected(std::move(region));
  return true;
}

void IpcSocket::PrepareNext() {
  if (const auto introduction = GetIntroduction()) introduction->PrepareNext();
}

std::shared_ptr<IpcIntroduction> IpcSocket::GetIntroduction() {
  const Lock lock(introductionLock_);
  return introduction_;
}

rc_ptr<IpcSocket> IpcSocket::MakeConnected(std::unique_ptr<IpcRegion> region) {
  return region != nullptr ? new IpcSocket(std::move(region)) : nullptr;
}

void IpcSocket::Close() {
  state_ = State::kClosed;
  region_->Close();
  const Lock lock(introductionLock_);
  introduction_.reset();
}

u32 IpcSocket::ReadRing(void* target, u32 length, u32 timeoutMs) {
  const IpcRegion::Result result = region_->Read(target, length, timeoutMs);
  if (!result.isUsable) LosePeer();
  return result.count;
}

IpcSocket::Result IpcSocket::Read(void* target, u32 length, u32 timeoutMs) {
  u8* next = static_cast<u8*>(target);
  const bool isShort = timeoutMs < kSliceMs;
  const u32 slices = isShort ? 1 : timeoutMs / kSliceMs;
  Result result;
  for (u32 i = 0; IsConnected() && (timeoutMs == kNoLimit || i < slices); ++i) {
    result.count = ReadRing(next, length, isShort ? timeoutMs : kSliceMs);
    if (result.count == length) break;
    if (region_->GetAttachCount() != kBothEnds) LosePeer();
    if (timeoutMs == 0 || result.count > 0) break;
    if (region_->IsPeerGone()) LosePeer();
  }
  // The peer may have written between the last read and its end; those bytes are still delivered.
  if (GetState() == State::kClosed) result.count += ReadRing(next + result.count, length - result.count, 0);
  result.isConnected = IsConnected();
  return result;
}

IpcSocket::Result IpcSocket::Write(const void* source, u32 length, u32 timeoutMs) {
  if (!IsConnected()) return {};
  const IpcRegion::Result written = region_->Write(source, length, timeoutMs);
  if (!written.isUsable || (written.count < length && region_->IsPeerGone())) LosePeer();
  if (region_->GetAttachCount() < kBothEnds) LosePeer();
  return {written.count, IsConnected()};
}

int IpcSocket::GetWaitHandle() {
  if (GetState() == State::kListening) region_->RepairHeaders();
  HANDLE handle = nullptr;
  if (!region_->GetReadEvent(handle)) return -1;
  if (handle == nullptr) throw SocketException("NULL waitable handle from input buffer.");
  if (IsConnected() && region_->IsPeerGone()) LosePeer();
  if (!region_->RecoverReader()) LosePeer();
  // Another thread's write may have found the peer gone. The thread that waits on the handle is woken, so that it reads
  // and learns of it.
  if (GetState() == State::kClosed) region_->WakeReader();
  return platform::HandleToInt(handle);
}

void IpcSocket::LosePeer() {
  State expected = State::kConnected;
  // Only from connected: a socket that listens or has failed keeps its state.
  state_.compare_exchange_strong(expected, State::kClosed);
}

}  // namespace kestrun
