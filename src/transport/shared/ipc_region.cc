#include "transport/shared/ipc_region.h"

#include <utility>

#include "transport/shared/handle_count.h"

namespace kestrun {

namespace {

constexpr u32 kRingSize = 0x10000;
constexpr u32 kRegionSize = 2 * kRingSize;

}  // namespace

bool IpcRegion::Map(const std::string& name, u32 size, bool isNew) {
  try {
    file_ = std::make_unique<MappedFile>(name, size, isNew);
    view_ = file_->CreateView(0, MappedFile::kWholeSize, true);
  } catch (const MappedFileException&) {
    return false;
  }
  return view_->GetSize() >= kRegionSize;
}

bool IpcRegion::Create(const std::string& name) {
  Leave();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (!Map(name, kRegionSize, true)) return false;
  u8* base = static_cast<u8*>(view_->GetData());
  SetRings(std::make_unique<IpcRing>(base, kRingSize, name + ".c2s"),
           std::make_unique<IpcRing>(base + kRingSize, kRingSize, name + ".s2c"));
  name_ = name;
  isOwner_ = true;
  isOpen_ = true;
  return true;
}

// The sizes in the region were written by the other end, so each is checked before its ring is used.
bool IpcRegion::Open(const std::string& name) {
  Leave();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (!Map(name, 0, false)) return false;
  u8* base = static_cast<u8*>(view_->GetData());
  auto toOwner = std::make_unique<IpcRing>(base, name + ".c2s");
  if (toOwner->GetRegionSize() != kRingSize) return false;
  auto fromOwner = std::make_unique<IpcRing>(base + kRingSize, name + ".s2c");
  if (fromOwner->GetRegionSize() != kRingSize) return false;
  SetRings(std::move(fromOwner), std::move(toOwner));
  name_ = name;
  isOpen_ = true;
  return true;
}

void IpcRegion::Leave() {
  isOpen_ = false;
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  SetRings(nullptr, nullptr);
  view_.Reset();
  file_.reset();
}

// Both rings are detached before the peer is woken, so that the peer finds this end gone in either ring. Interrupt
// comes first: it ends a blocked reader or writer, which holds the lock that is taken next.
void IpcRegion::Close() {
  isOpen_ = false;
  Interrupt();
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ != nullptr) {
    Detach();
    view_->Flush();
    output_->WakeReader();
    input_->WakeWriter();
  }
  Leave();
}

void IpcRegion::SetRings(std::unique_ptr<IpcRing> input, std::unique_ptr<IpcRing> output) {
  const Lock lock(ringsLock_);
  input_ = std::move(input);
  output_ = std::move(output);
}

void IpcRegion::Interrupt() {
  const Lock lock(ringsLock_);
  if (input_ == nullptr) return;
  input_->Interrupt();
  output_->Interrupt();
}

void IpcRegion::Detach() {
  const Lock lock(ringsLock_);
  input_->Detach();
  output_->Detach();
}

IpcRegion::Result IpcRegion::Read(void* target, u32 length, u32 timeoutMs) {
  const Lock lock(inputLock_);
  if (input_ == nullptr) return {};
  const u32 count = input_->Read(target, length, timeoutMs);
  return {count, !input_->IsUnusable()};
}

IpcRegion::Result IpcRegion::Write(const void* source, u32 length, u32 timeoutMs) {
  const Lock lock(outputLock_);
  if (output_ == nullptr) return {};
  const u32 count = output_->Write(source, length, timeoutMs);
  return {count, !output_->IsUnusable()};
}

bool IpcRegion::RunLocked(u32 lockTimeoutMs, const Step& step) {
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ == nullptr) return false;
  {
    // Always .c2s first, at both ends: taken in different orders, the two ends could wait for one another.
    const IpcRing::LockGuard toOwner(isOwner_ ? *input_ : *output_, lockTimeoutMs);
    const IpcRing::LockGuard fromOwner(isOwner_ ? *output_ : *input_, lockTimeoutMs);
    if (!toOwner || !fromOwner || !step(*input_, *output_)) return false;
  }
  output_->WakeReader();
  return true;
}

u32 IpcRegion::GetAvailable() {
  const Lock lock(inputLock_);
  return input_ != nullptr ? input_->GetUsed() : 0;
}

bool IpcRegion::SeemsReadable() {
  const Lock lock(inputLock_);
  return input_ == nullptr || !input_->SeemsEmpty();
}

u32 IpcRegion::GetRoom() {
  const Lock lock(outputLock_);
  return output_ != nullptr ? output_->GetFree() : 0;
}

bool IpcRegion::GetReadEvent(HANDLE& event) {
  const Lock lock(inputLock_);
  if (input_ == nullptr) return false;
  event = input_->GetNotEmptyHandle();
  return true;
}

void IpcRegion::WakeReader() {
  const Lock lock(inputLock_);
  if (input_ != nullptr) input_->WakeReader();
}

bool IpcRegion::RecoverReader() {
  const Lock lock(inputLock_);
  if (input_ == nullptr) return false;
  // Bytes that arrived while the lock was timed out were announced already and not read.
  if (input_->HasLockTimedOut() && IpcRing::LockGuard(*input_)) input_->WakeReader();
  return !input_->IsUnusable();
}

bool IpcRegion::HasLockTimedOut() {
  const Lock lock(inputLock_);
  return input_ != nullptr && input_->HasLockTimedOut();
}

void IpcRegion::RepairHeaders() {
  const Lock input(inputLock_);
  const Lock output(outputLock_);
  if (output_ == nullptr) return;
  input_->RepairHeader();
  output_->RepairHeader();
}

bool IpcRegion::IsPeerGone() {
  const Lock lock(ringsLock_);
  return input_ != nullptr && GetHandleCount(input_->GetNotEmptyHandle()) == 1;
}

u32 IpcRegion::GetAttachCount() {
  const Lock lock(ringsLock_);
  const auto& ring = isOwner_ ? input_ : output_;
  return ring != nullptr ? ring->GetAttachCount() : 0;
}

u32 IpcRegion::GetAttachTotal() {
  const Lock lock(ringsLock_);
  return input_ != nullptr ? input_->GetAttachTotal() : 0;
}

}  // namespace kestrun
