#include "client/client_slot.h"

#include <algorithm>
#include <utility>

#include "protocol/names.h"
#include "transport/shared/adaptive_spin.h"

namespace kestrun {

namespace {

// How often a waiting client checks that its master is alive.
constexpr u32 kMasterCheckMs = 1000;

// Process ids are reused; the time stamp tells two clients with the same id apart.
u32 MakeStamp() {
  LARGE_INTEGER counter{};
  QueryPerformanceCounter(&counter);
  return static_cast<u32>(counter.QuadPart);
}

// A live master owns the mutex. A client owns it only for the moment of this check.
bool IsKept(HANDLE keeper) {
  if (!WaitForHandle(keeper, 0)) return true;
  ReleaseMutex(keeper);
  return false;
}

}  // namespace

bool ClientSlot::Open(const std::string& id, bool usesTable) {
  access_.Reset(OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, GetAccessName(id).c_str()));
  if (!access_) return false;
  if (!usesTable) return true;
  UniqueHandle keeper(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, GetKeeperName(id).c_str()));
  if (!keeper) return true;
  // The master has died, and its other clients keep the objects open: no request would ever be granted.
  if (!IsKept(keeper.Get())) return false;
  request_ = MakeRequest(id, {});
  if (!request_) return true;
  request_->keeper = std::move(keeper);
  SetEvent(request_->call.Get());
  return true;
}

bool ClientSlot::OpenTable(const std::string& id, std::string_view noteText) {
  UniqueHandle keeper(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, GetKeeperName(id).c_str()));
  if (!keeper || !IsKept(keeper.Get())) return false;
  request_ = MakeRequest(id, noteText);
  if (!request_) return false;
  request_->keeper = std::move(keeper);
  SetEvent(request_->call.Get());
  return true;
}

std::unique_ptr<ClientSlot::Request> ClientSlot::MakeRequest(const std::string& id, std::string_view noteText) {
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
  // The event has to exist before the word is in the table: the master reclaims a word that has no event.
  request->answer.Reset(CreateEventA(nullptr, FALSE, FALSE, GetPlaceName(id, request->word).c_str()));
  const bool isNew = GetLastError() != ERROR_ALREADY_EXISTS;
  if (isNew && !noteText.empty()) WriteNote(id, noteText, *request);
  return request->answer && isNew && TakeEntry(*request) ? std::move(request) : nullptr;
}

// Without it the master knows less of the job, and runs it all the same.
void ClientSlot::WriteNote(const std::string& id, std::string_view text, Request& request) {
  try {
    request.noteRegion = std::make_unique<MappedFile>(GetNoteName(id, request.word), ToolNote::kSize, true);
    request.noteView = request.noteRegion->CreateView(0, MappedFile::kWholeSize, true);
  } catch (const MappedFileException&) {
    return;
  }
  ToolNote& note = *static_cast<ToolNote*>(request.noteView->GetData());
  note.textSize = static_cast<u32>(text.copy(note.text, sizeof note.text));
}

void ClientSlot::NoteEnd(i32 exitCode, std::int64_t cpuUs, std::int64_t peakMemoryBytes) {
  if (!request_ || !request_->noteView) return;
  ToolNote& note = *static_cast<ToolNote*>(request_->noteView->GetData());
  note.exitCode = exitCode;
  note.cpuUs = cpuUs;
  note.peakMemoryBytes = peakMemoryBytes;
  // Release: the master that sees this sees what is above.
  note.hasEnded.store(1, std::memory_order_release);
}

// Clients that start together search from different entries, so that they rarely compete for one.
bool ClientSlot::TakeEntry(Request& request) {
  PlaceTable& table = *static_cast<PlaceTable*>(request.view->GetData());
  const u32 first = static_cast<u32>(request.word >> 32) % PlaceTable::kSlots;
  for (u32 i = 0; i < PlaceTable::kSlots; ++i) {
    std::atomic<u64>& entry = table.slots[(first + i) % PlaceTable::kSlots];
    u64 expected = 0;
    if (!entry.compare_exchange_strong(expected, request.word)) continue;
    request.entry = &entry;
    return true;
  }
  return false;
}

bool ClientSlot::IsGranted() const {
  return *request_->entry == WithPlaceState(request_->word, PlaceState::kGranted);
}

ClientSlot::Outcome ClientSlot::Wait(u32 timeoutMs) {
  if (!request_) {
    isAdmitted_ = WaitForHandle(access_.Get(), timeoutMs);
    return isAdmitted_ ? Outcome::kAdmitted : Outcome::kTimeOver;
  }
  // Where a slot is free the grant arrives sooner than a thread falls asleep and wakes again.
  AdaptiveSpin(AdaptiveSpin::kMostChecks).Await([this] { return IsGranted(); });
  for (u32 waitedMs = 0; waitedMs < timeoutMs;) {
    if (IsGranted()) return Outcome::kAdmitted;
    const u32 sliceMs = std::min(kMasterCheckMs, timeoutMs - waitedMs);
    const bool isAnswered = WaitForHandle(request_->answer.Get(), sliceMs);
    if (isAnswered || IsGranted()) continue;
    if (!IsKept(request_->keeper.Get())) return Outcome::kMasterGone;
    waitedMs += sliceMs;
  }
  return Outcome::kTimeOver;
}

// Withdraws a request that is not granted, or returns the granted slot. The first exchange fails only if the grant came
// before it, and no grant can come after it.
ClientSlot::~ClientSlot() {
  if (isAdmitted_) ReleaseSemaphore(access_.Get(), 1, nullptr);
  if (!request_ || request_->entry == nullptr) return;
  u64 asked = request_->word;
  if (!request_->entry->compare_exchange_strong(asked, 0)) {
    u64 granted = WithPlaceState(request_->word, PlaceState::kGranted);
    request_->entry->compare_exchange_strong(granted, WithPlaceState(granted, PlaceState::kReturned));
  }
  SetEvent(request_->call.Get());
}

}  // namespace kestrun
