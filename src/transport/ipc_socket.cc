#include "transport/ipc_socket.h"

#include <ctime>
#include <utility>

#include "platform/host.h"
#include "transport/handle_count.h"
#include "transport/ipc_stream_adapter.h"
#include "transport/socket_exception.h"

namespace kestrun {

namespace {

constexpr u32 kRingSize = 0x10000;
constexpr u32 kRegionSize = 2 * kRingSize;
constexpr u32 kSliceMs = 1000;
constexpr u32 kBothEnds = 2;

}  // namespace

IpcSocket::IpcSocket() : connectionCounter_(static_cast<u32>(std::time(nullptr))) {}

IpcSocket::~IpcSocket() {
  Close();
}

bool IpcSocket::CreateRegion(const std::string& name) {
  DestroyRegion();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  try {
    region_ = std::make_unique<MappedFile>(name, kRegionSize, true);
    view_ = region_->CreateView(0, MappedFile::kWholeSize, true);
  } catch (const MappedFileException&) {
    return false;
  }
  u8* base = static_cast<u8*>(view_->GetData());
  SetRings(std::make_unique<IpcRing>(base, kRingSize, name + ".c2s"),
           std::make_unique<IpcRing>(base + kRingSize, kRingSize, name + ".s2c"));
  name_ = name;
  isAccepting_ = true;
  return true;
}

// The sizes in the region are the other end's word: nothing is done with a ring before its size has proved right.
bool IpcSocket::OpenRegion(const std::string& name) {
  DestroyRegion();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  try {
    region_ = std::make_unique<MappedFile>(name, 0, false);
    view_ = region_->CreateView(0, MappedFile::kWholeSize, true);
  } catch (const MappedFileException&) {
    return false;
  }
  if (view_->GetSize() < kRegionSize) return false;
  u8* base = static_cast<u8*>(view_->GetData());
  auto toListener = std::make_unique<IpcRing>(base, name + ".c2s");
  if (toListener->GetRegionSize() != kRingSize) return false;
  auto fromListener = std::make_unique<IpcRing>(base + kRingSize, name + ".s2c");
  if (fromListener->GetRegionSize() != kRingSize) return false;
  SetRings(std::move(fromListener), std::move(toListener));
  name_ = name;
  return true;
}

void IpcSocket::DestroyRegion() {
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  SetRings(nullptr, nullptr);
  view_.Reset();
  region_.reset();
}

void IpcSocket::SetRings(std::unique_ptr<IpcRing> input, std::unique_ptr<IpcRing> output) {
  const Lock lock(ringsLock_);
  input_ = std::move(input);
  output_ = std::move(output);
}

void IpcSocket::Interrupt() {
  const Lock lock(ringsLock_);
  if (input_ == nullptr) return;
  input_->Interrupt();
  output_->Interrupt();
}

// Both rings are left before the peer is woken, so that it finds nobody whichever of them it looks at.
void IpcSocket::Close() {
  state_ = State::kClosed;
  Interrupt();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ != nullptr) {
    input_->Detach();
    output_->Detach();
    view_->Flush();
    output_->WakeReader();
    input_->WakeWriter();
  }
  next_.reset();
  changeEvent_.reset();
  connectLock_.reset();
  DestroyRegion();
}

u32 IpcSocket::ReadRing(void* target, u32 length, u32 timeoutMs) {
  const Lock lock(inputLock_);
  if (input_ == nullptr) return 0;
  const u32 count = input_->Read(target, length, timeoutMs);
  if (input_->IsRuined()) LosePeer();
  return count;
}

IpcSocket::Result IpcSocket::Read(void* target, u32 length, u32 timeoutMs) {
  u8* next = static_cast<u8*>(target);
  const bool isShort = timeoutMs < kSliceMs;
  const u32 slices = isShort ? 1 : timeoutMs / kSliceMs;
  Result result;
  for (u32 i = 0; IsConnected() && (timeoutMs == kNoLimit || i < slices); ++i) {
    result.count = ReadRing(next, length, isShort ? timeoutMs : kSliceMs);
    if (result.count == length) break;
    if (GetAttachCount() != kBothEnds) LosePeer();
    if (timeoutMs == 0 || result.count > 0) break;
    if (IsPeerGone()) LosePeer();
  }
  // The peer may have written between the last look into the ring and its end.
  if (GetState() == State::kClosed) result.count += ReadRing(next + result.count, length - result.count, 0);
  result.isConnected = IsConnected();
  return result;
}

IpcSocket::Result IpcSocket::Write(const void* source, u32 length, u32 timeoutMs) {
  if (!IsConnected()) return {};
  Result result;
  {
    const Lock lock(outputLock_);
    if (output_ != nullptr) {
      result.count = output_->Write(source, length, timeoutMs);
      if (output_->IsRuined()) LosePeer();
      if (result.count < length && GetHandleCount(output_->GetNotFullHandle()) == 1) LosePeer();
    }
  }
  if (GetAttachCount() < kBothEnds) LosePeer();
  result.isConnected = IsConnected();
  return result;
}

int IpcSocket::GetWaitHandle() {
  const Lock lock(inputLock_);
  if (input_ == nullptr) return -1;
  const HANDLE handle = input_->GetNotEmptyHandle();
  if (handle == nullptr) throw SocketException("NULL waitable handle from input buffer.");
  if (IsConnected() && GetHandleCount(handle) == 1) LosePeer();
  // Nobody signals a second time for what a read could not take for want of the lock.
  if (input_->IsHeldUp() && IpcRing::Turn(*input_)) input_->WakeReader();
  if (input_->IsRuined()) LosePeer();
  // Also for a writer that has found the peer gone: whoever waits is to come and see.
  if (GetState() == State::kClosed) input_->WakeReader();
  return platform::HandleToInt(handle);
}

void IpcSocket::SignalReader() {
  const Lock lock(inputLock_);
  if (input_ != nullptr) input_->WakeReader();
}

u32 IpcSocket::GetAvailable() {
  const Lock lock(inputLock_);
  return input_ != nullptr ? input_->GetUsed() : 0;
}

u32 IpcSocket::GetRoom() {
  const Lock lock(outputLock_);
  return output_ != nullptr ? output_->GetFree() : 0;
}

u32 IpcSocket::GetAttachCount() {
  const Lock lock(isAccepting_ ? inputLock_ : outputLock_);
  const auto& ring = isAccepting_ ? input_ : output_;
  return ring != nullptr ? ring->GetAttachCount() : 0;
}

void IpcSocket::GetStream(rc_ptr<Stream>& out) {
  out = new StreamAdapter(this);
}

bool IpcSocket::IsPeerGone() {
  const Lock lock(inputLock_);
  return input_ != nullptr && GetHandleCount(input_->GetNotEmptyHandle()) == 1;
}

void IpcSocket::LosePeer() {
  State expected = State::kConnected;
  state_.compare_exchange_strong(expected, State::kClosed);
}

}  // namespace kestrun
