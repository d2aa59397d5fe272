#include "stubs/client_place.h"

#include <algorithm>
#include <utility>

#include "protocol/names.h"
#include "transport/lookout.h"

namespace kestrun {

namespace {

// How often a client that waits looks whether its master lives.
constexpr u32 kLookMs = 1000;

// Process ids come again soon after their end; the time tells two clients with the same one apart.
u32 MakeStamp() {
  LARGE_INTEGER counter{};
  QueryPerformanceCounter(&counter);
  return static_cast<u32>(counter.QuadPart);
}

// A master owns its mutex. Nobody else holds it for longer than this look takes.
bool IsKept(HANDLE keeper) {
  if (!WaitForHandle(keeper, 0)) return true;
  ReleaseMutex(keeper);
  return false;
}

}  // namespace

bool ClientPlace::Open(const std::string& id, bool usesTable) {
  access_.Reset(OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, GetAccessName(id).c_str()));
  if (!access_) return false;
  if (!usesTable) return true;
  UniqueHandle keeper(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, GetKeeperName(id).c_str()));
  if (!keeper) return true;
  // Left by a master that died, and kept by its other clients: nobody would ever admit this one.
  if (!IsKept(keeper.Get())) return false;
  request_ = MakeRequest(id);
  if (!request_) return true;
  request_->keeper = std::move(keeper);
  SetEvent(request_->call.Get());
  return true;
}

std::unique_ptr<ClientPlace::Request> ClientPlace::MakeRequest(const std::string& id) {
  auto request = std::make_unique<Request>();
  request->call.Reset(OpenEventA(EVENT_ALL_ACCESS, FALSE, GetCallName(id).c_str()));
  if (!request->call) return nullptr;
  try {
    request->region = std::make_unique<MappedFile>(GetTableName(id), 0, false);
    request->view = request->region->CreateView(0, MappedFile::kWholeSize, true);
  } catch (const MappedFileException&) {
    return nullptr;
  }
  if (request->view->GetSize() < PlaceTable::kSize) return nullptr;
  request->word = MakePlaceWord(GetCurrentProcessId(), MakeStamp(), PlaceState::kAsking);
  // There before the word is: the master takes a word without its event for that of a client that has gone.
  request->answer.Reset(CreateEventA(nullptr, FALSE, FALSE, GetPlaceName(id, request->word).c_str()));
  const bool isNew = GetLastError() != ERROR_ALREADY_EXISTS;
  return request->answer && isNew && TakeSlot(*request) ? std::move(request) : nullptr;
}

// Clients that start at once begin at different slots.
bool ClientPlace::TakeSlot(Request& request) {
  PlaceTable& table = *static_cast<PlaceTable*>(request.view->GetData());
  const u32 first = static_cast<u32>(request.word >> 32) % PlaceTable::kSlots;
  for (u32 i = 0; i < PlaceTable::kSlots; ++i) {
    std::atomic<u64>& slot = table.slots[(first + i) % PlaceTable::kSlots];
    u64 expected = 0;
    if (!slot.compare_exchange_strong(expected, request.word)) continue;
    request.slot = &slot;
    return true;
  }
  return false;
}

bool ClientPlace::IsGranted() const {
  return *request_->slot == WithPlaceState(request_->word, PlaceState::kGranted);
}

ClientPlace::Outcome ClientPlace::Wait(u32 timeoutMs) {
  if (!request_) {
    isAdmitted_ = WaitForHandle(access_.Get(), timeoutMs);
    return isAdmitted_ ? Outcome::kAdmitted : Outcome::kTimeOver;
  }
  // Where a place is free, the answer takes less time than to fall asleep over it.
  Lookout(Lookout::kMostLooks).Await([this] { return IsGranted(); });
  for (u32 waitedMs = 0; waitedMs < timeoutMs;) {
    if (IsGranted()) return Outcome::kAdmitted;
    const u32 sliceMs = std::min(kLookMs, timeoutMs - waitedMs);
    const bool isAnswered = WaitForHandle(request_->answer.Get(), sliceMs);
    if (isAnswered || IsGranted()) continue;
    if (!IsKept(request_->keeper.Get())) return Outcome::kMasterGone;
    waitedMs += sliceMs;
  }
  return Outcome::kTimeOver;
}

// A request that was not granted is taken back; the two changes are such that a grant can come only before the first.
ClientPlace::~ClientPlace() {
  if (isAdmitted_) ReleaseSemaphore(access_.Get(), 1, nullptr);
  if (!request_ || request_->slot == nullptr) return;
  u64 asked = request_->word;
  if (!request_->slot->compare_exchange_strong(asked, 0)) {
    u64 granted = WithPlaceState(request_->word, PlaceState::kGranted);
    request_->slot->compare_exchange_strong(granted, WithPlaceState(granted, PlaceState::kReturned));
  }
  SetEvent(request_->call.Get());
}

}  // namespace kestrun
