// A client's steps on the table of clients (protocol/place_table.h):
//
//   1. makes the event of its word        the master takes a word without an event for that of a dead client
//   2. writes the word, "asking"          by a compare-and-swap from 0
//   3. sets the master's event            the master looks at the table
//   4. waits for its own event            the word is "granted" then
//   5. "returned", or 0 without a grant   the master reclaims the entry
//
// A client that is killed after any step leaves a word whose event is gone, by which the master reclaims it.
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

// True if a master lives: it owns the mutex. A client that takes it finds it abandoned or free, and gives it back at
// once.
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
  // The master has died, and other clients keep its objects open, so no request would ever be granted.
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
  // The event must exist before the word is in the table, because the master reclaims a word without an event.
  request->answer.Reset(CreateEventA(nullptr, FALSE, FALSE, GetPlaceName(id, request->word).c_str()));
  const bool isNew = GetLastError() != ERROR_ALREADY_EXISTS;
  if (isNew && !noteText.empty()) WriteNote(id, noteText, *request);
  return request->answer && isNew && TakeEntry(*request) ? std::move(request) : nullptr;
}

// A failure is ignored: without the note the master knows less of the job, and grants its slot all the same.
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
  // Release: a master that sees the flag also sees the fields above.
  note.hasEnded.store(1, std::memory_order_release);
}

// Clients search from different entries, so that those that start together rarely compete for one.
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
  // If a slot is free, the grant arrives sooner than a thread could fall asleep and wake up.
  AdaptiveSpin(AdaptiveSpin::kMostChecks).Await([this] { return IsGranted(); });
  for (u32 waitedMs = 0; waitedMs < timeoutMs;) {
    if (IsGranted()) return Outcome::kAdmitted;
    const u32 sliceMs = std::min(kMasterCheckMs, timeoutMs - waitedMs);
    const bool isAnswered = WaitForHandle(request_->answer.Get(), sliceMs);
    if (isAnswered || IsGranted()) continue;
    // Asked only after a slice without an answer, since asking takes the mutex.
    if (!IsKept(request_->keeper.Get())) return Outcome::kMasterGone;
    waitedMs += sliceMs;
  }
  return Outcome::kTimeOver;
}

// Withdraws a request that is not granted, or returns the granted slot. The first exchange fails only if the grant came
// before it; after it has succeeded no grant can come.
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
