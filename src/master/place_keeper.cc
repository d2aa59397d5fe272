#include "master/place_keeper.h"

#include <algorithm>

#include "master/master_log.h"
#include "protocol/names.h"
#include "transport/handle_count.h"

namespace kestrun {

namespace {

constexpr u32 kLookMs = 1000;
// For a client that looks at the mutex in this moment.
constexpr u32 kKeeperMs = 1000;

bool IsSameClient(u64 one, u64 other) {
  return WithPlaceState(one, PlaceState::kNone) == WithPlaceState(other, PlaceState::kNone);
}

}  // namespace

PlaceKeeper::PlaceKeeper(const std::string& id, u32 places)
    : id_(id), keeper_(GetKeeperName(id).c_str()), call_(GetCallName(id).c_str()) {
  if (!keeper_.Lock(kKeeperMs)) throw SyncException("another master keeps the places of " + id);
  try {
    access_ = std::make_unique<Semaphore>(static_cast<i32>(places), GetAccessName(id).c_str());
    OpenTable();
    AdoptGranted();
    thread_ = new Thread("Place keeper");
    if (!thread_->Start(MakeDelegate(&PlaceKeeper::Serve, this))) throw SyncException("no thread to keep the places");
  } catch (const SystemException&) {
    keeper_.Unlock();
    throw;
  }
}

PlaceKeeper::~PlaceKeeper() {
  end_.Signal();
  thread_->Wait(kNoLimit);
  keeper_.Unlock();
}

void PlaceKeeper::OpenTable() {
  try {
    region_ = std::make_unique<MappedFile>(GetTableName(id_), PlaceTable::kSize, true);
  } catch (const MappedFileException&) {
    region_ = std::make_unique<MappedFile>(GetTableName(id_), 0, false);
  }
  view_ = region_->CreateView(0, MappedFile::kWholeSize, true);
  if (view_->GetSize() < PlaceTable::kSize) throw SyncException("the table of places is too small");
  table_ = static_cast<PlaceTable*>(view_->GetData());
}

// Their clients have the semaphore open too, so that it is still the one from which those places were taken.
void PlaceKeeper::AdoptGranted() {
  for (u32 i = 0; i < PlaceTable::kSlots; ++i) {
    const u64 word = table_->slots[i];
    const PlaceState state = GetPlaceState(word);
    if (state != PlaceState::kGranted && state != PlaceState::kReturned) continue;
    if (Enter(i, word)) {
      records_[i].isGranted = true;
    } else {
      access_->Release();
    }
  }
}

void PlaceKeeper::Serve() {
  const HANDLE handles[] = {end_.GetHandle(), call_.GetHandle(), access_->GetHandle()};
  u32 lastLook = GetTickCount();
  LookAtSlots();
  for (;;) {
    const DWORD count = waiting_.empty() ? 2 : 3;
    const DWORD result = WaitForMultipleObjects(count, handles, FALSE, clients_ == 0 ? INFINITE : kLookMs);
    if (result == WAIT_OBJECT_0) return;
    if (result == WAIT_OBJECT_0 + 2) {
      GrantOne();
    } else {
      LookAtSlots();
    }
    if (GetTickCount() - lastLook < kLookMs) continue;
    LookForDead();
    lastLook = GetTickCount();
  }
}

// Whatever stands in a slot now: a record's client that wrote anything else than what was agreed has left.
void PlaceKeeper::LookAtSlots() {
  for (u32 i = 0; i < PlaceTable::kSlots; ++i) {
    u64 word = table_->slots[i];
    const Record& record = records_[i];
    if (record.client) {
      const bool isThere = IsSameClient(word, record.word) && GetPlaceState(word) != PlaceState::kReturned;
      if (isThere) continue;
      Leave(i);
      word = table_->slots[i];
    }
    if (word == 0) continue;
    if (GetPlaceState(word) == PlaceState::kAsking && Enter(i, word)) {
      waiting_.push_back(i);
    } else {
      table_->slots[i].compare_exchange_strong(word, 0);
    }
  }
}

void PlaceKeeper::LookForDead() {
  u64 places = 0;
  for (u32 i = 0; i < PlaceTable::kSlots && clients_ > 0; ++i) {
    const Record& record = records_[i];
    if (!record.client || GetHandleCount(record.client.Get()) != 1) continue;
    if (record.isGranted) ++places;
    Leave(i);
  }
  if (places > 0) WriteMasterLog(Log::Info, "Places of lost stubs returned", {LogField("places", places)});
}

void PlaceKeeper::GrantOne() {
  while (!waiting_.empty()) {
    const u32 slot = waiting_.front();
    Record& record = records_[slot];
    if (GetHandleCount(record.client.Get()) == 1) {
      Leave(slot);
      continue;
    }
    waiting_.pop_front();
    u64 expected = record.word;
    record.isGranted =
        table_->slots[slot].compare_exchange_strong(expected, WithPlaceState(expected, PlaceState::kGranted));
    if (record.isGranted) {
      SetEvent(record.client.Get());
      return;
    }
    Leave(slot);
  }
  access_->Release();
}

bool PlaceKeeper::Enter(u32 slot, u64 word) {
  Record& record = records_[slot];
  record.client.Reset(OpenEventA(EVENT_ALL_ACCESS, FALSE, GetPlaceName(id_, word).c_str()));
  if (!record.client) return false;
  record.word = word;
  record.isGranted = false;
  ++clients_;
  return true;
}

// Frees the slot if it is still that client's.
void PlaceKeeper::Leave(u32 slot) {
  Record& record = records_[slot];
  if (record.isGranted) access_->Release();
  std::erase(waiting_, slot);
  record.client.Reset();
  record.isGranted = false;
  --clients_;
  u64 word = table_->slots[slot];
  if (IsSameClient(word, record.word)) table_->slots[slot].compare_exchange_strong(word, 0);
}

}  // namespace kestrun
