#include "master/place_keeper.h"

#include <algorithm>
#include <utility>

#include "master/master_log.h"
#include "protocol/names.h"
#include "transport/shared/handle_count.h"

namespace kestrun {

namespace {

// How often dead clients are looked for.
constexpr u32 kCheckMs = 1000;
// How long to wait for the mutex: a client that checks whether the master lives holds it for a moment.
constexpr u32 kKeeperMs = 1000;

constexpr int kTableAttempts = 10;

// Tickets of the table's slots are told from those of the master's own threads by this bit.
constexpr JobSlots::Ticket kTableBit = JobSlots::Ticket{1} << 62;

JobSlots::Ticket TicketOf(u32 slot) {
  return kTableBit | slot;
}

// The last client of an earlier master may close the table between an attempt to make it, which fails because it
// exists, and one to open it, which fails because it has gone. So both are tried in turn.
std::unique_ptr<MappedFile> MakeOrOpenTable(const std::string& name) {
  for (int attempt = 1;; ++attempt) {
    const bool isNew = attempt % 2 == 1;
    try {
      return std::make_unique<MappedFile>(name, isNew ? PlaceTable::kSize : 0, isNew);
    } catch (const MappedFileException&) {
      if (attempt >= kTableAttempts) throw;
    }
  }
}

bool IsSameClient(u64 one, u64 other) {
  return WithPlaceState(one, PlaceState::kNone) == WithPlaceState(other, PlaceState::kNone);
}

}  // namespace

PlaceKeeper::PlaceKeeper(const std::string& id, u32 places) : PlaceKeeper(id, places, nullptr, nullptr) {}

PlaceKeeper::PlaceKeeper(const std::string& id, JobSlots& slots, JobJournal* journal)
    : PlaceKeeper(id, 0, &slots, journal) {}

PlaceKeeper::PlaceKeeper(const std::string& id, u32 places, JobSlots* slots, JobJournal* journal)
    : id_(id), slots_(slots), journal_(journal), keeper_(GetKeeperName(id).c_str()), call_(GetCallName(id).c_str()) {
  if (slots_ != nullptr) slots_->SetListener([this](JobSlots::Ticket ticket) { OnGranted(ticket); });
  if (!keeper_.Lock(kKeeperMs)) throw SyncException("another master keeps the places of " + id);
  try {
    if (slots_ == nullptr) access_ = std::make_unique<Semaphore>(static_cast<i32>(places), GetAccessName(id).c_str());
    OpenTable();
    AdoptGranted(places);
    thread_ = new Thread("Place keeper");
    if (!thread_->Start(MakeDelegate(&PlaceKeeper::Serve, this))) throw SyncException("no thread to keep the places");
  } catch (const SystemException&) {
    keeper_.Unlock();
    throw;
  }
}

// Unlocked last: while the mutex is owned, clients wait for a thread that still answers.
PlaceKeeper::~PlaceKeeper() {
  end_.Signal();
  thread_->Wait(kNoLimit);
  keeper_.Unlock();
}

void PlaceKeeper::OpenTable() {
  region_ = MakeOrOpenTable(GetTableName(id_));
  view_ = region_->CreateView(0, MappedFile::kWholeSize, true);
  if (view_->GetSize() < PlaceTable::kSize) throw SyncException("the table of places is too small");
  table_ = static_cast<PlaceTable*>(view_->GetData());
}

// The clients keep the earlier master's semaphore open as well, so that access_ is the one from which their counts were
// taken. A master that is killed may have taken a count that it has not granted yet, or released one whose entry still
// stands; so the count is not taken over but set anew. What clients without the table hold is not in it.
void PlaceKeeper::AdoptGranted(u32 places) {
  for (u32 i = 0; i < PlaceTable::kSlots; ++i) {
    const u64 word = table_->slots[i];
    const PlaceState state = GetPlaceState(word);
    if (state != PlaceState::kGranted && state != PlaceState::kReturned) continue;
    // The tools of an earlier master's clients run on beside the limit.
    if (slots_ != nullptr) table_->slots[i] = 0;
    if (slots_ == nullptr && Enter(i, word)) records_[i].isGranted = true;
  }
  if (slots_ != nullptr) return;
  while (access_->Wait(0)) {
  }
  for (u32 taken = clients_; taken < places; ++taken) access_->Release();
}

void PlaceKeeper::Serve() {
  const HANDLE handles[] = {end_.GetHandle(), call_.GetHandle(), access_ ? access_->GetHandle() : nullptr};
  u32 lastCheck = GetTickCount();
  ReadTable();
  for (;;) {
    // The semaphore is only waited for while a client wants its count: the wait itself takes one.
    const DWORD count = waiting_.empty() ? 2 : 3;
    const DWORD result = WaitForMultipleObjects(count, handles, FALSE, clients_ == 0 ? INFINITE : kCheckMs);
    if (result == WAIT_OBJECT_0) return;
    if (result == WAIT_OBJECT_0 + 2) {
      GrantOne();
    } else {
      GrantTickets();
      ReadTable();
    }
    if (GetTickCount() - lastCheck < kCheckMs) continue;
    ReclaimDead();
    lastCheck = GetTickCount();
  }
}

// Compares every entry with its record. An entry that no longer holds the word of the recorded client, or holds it as
// returned, ends that client's record.
void PlaceKeeper::ReadTable() {
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
      Ask(i);
    } else {
      table_->slots[i].compare_exchange_strong(word, 0);
    }
  }
}

void PlaceKeeper::ReclaimDead() {
  u64 places = 0;
  for (u32 i = 0; i < PlaceTable::kSlots && clients_ > 0; ++i) {
    const Record& record = records_[i];
    // The client's event is open in the client and here. A count of 1 means that only this handle is left.
    if (!record.client || GetHandleCount(record.client.Get()) != 1) continue;
    if (record.isGranted) ++places;
    Leave(i);
  }
  if (places > 0) WriteMasterLog(Log::Info, "Places of lost stubs returned", {LogField("places", places)});
}

void PlaceKeeper::GrantOne() {
  while (!waiting_.empty()) {
    const u32 slot = waiting_.front();
    const Record& record = records_[slot];
    if (GetHandleCount(record.client.Get()) == 1) {
      Leave(slot);
      continue;
    }
    waiting_.pop_front();
    if (Grant(slot)) return;
    Leave(slot);
  }
  access_->Release();
}

// False if the client has given up meanwhile.
bool PlaceKeeper::Grant(u32 slot) {
  Record& record = records_[slot];
  u64 expected = record.word;
  record.isGranted =
      table_->slots[slot].compare_exchange_strong(expected, WithPlaceState(expected, PlaceState::kGranted));
  if (!record.isGranted) return false;
  const std::int64_t startedUs = SteadyMicroseconds();
  SetEvent(record.client.Get());
  if (record.number != 0) journal_->Start(record.number, slots_->SlotOf(TicketOf(slot)), 0, startedUs);
  return true;
}

void PlaceKeeper::Ask(u32 slot) {
  if (slots_ == nullptr) {
    waiting_.push_back(slot);
  } else if (slots_->Ask(TicketOf(slot), static_cast<u32>(records_[slot].word >> 32)) && !Grant(slot)) {
    Leave(slot);
  } else if (records_[slot].number != 0) {
    journal_->FindParent(records_[slot].number);
  }
}

void PlaceKeeper::GiveBack(u32 slot) {
  if (slots_ != nullptr) {
    FinishInJournal(records_[slot]);
    slots_->Leave(TicketOf(slot));
  } else if (records_[slot].isGranted) {
    access_->Release();
  }
}

void PlaceKeeper::OnGranted(JobSlots::Ticket ticket) {
  if ((ticket & kTableBit) == 0) return;
  const std::lock_guard lock(ticketsLock_);
  tickets_.push_back(ticket);
  call_.Signal();
}

void PlaceKeeper::GrantTickets() {
  std::deque<JobSlots::Ticket> tickets;
  {
    const std::lock_guard lock(ticketsLock_);
    tickets.swap(tickets_);
  }
  for (const JobSlots::Ticket ticket : tickets) {
    const u32 slot = static_cast<u32>(ticket & ~kTableBit);
    // The client may have left since, and another one may stand in its slot and have asked for itself.
    if (records_[slot].client && !records_[slot].isGranted && slots_->IsGranted(ticket) && !Grant(slot)) Leave(slot);
  }
}

bool PlaceKeeper::Enter(u32 slot, u64 word) {
  Record& record = records_[slot];
  record.client.Reset(OpenEventA(EVENT_ALL_ACCESS, FALSE, GetPlaceName(id_, word).c_str()));
  if (!record.client) return false;
  record.word = word;
  record.isGranted = false;
  ++clients_;
  if (journal_ != nullptr) AddToJournal(record);
  return true;
}

void PlaceKeeper::AddToJournal(Record& record) {
  SlotTexts texts;
  try {
    record.noteRegion = std::make_unique<MappedFile>(GetNoteName(id_, record.word), 0, false);
    record.noteView = record.noteRegion->CreateView(0, MappedFile::kWholeSize, false);
    if (record.noteView->GetSize() >= sizeof(ToolNote)) {
      const ToolNote& note = *static_cast<const ToolNote*>(record.noteView->GetData());
      texts = SplitSlotTexts({note.text, std::min<std::size_t>(note.textSize, sizeof note.text)});
    } else {
      record.noteView.Reset();
    }
  } catch (const MappedFileException&) {
    // The client could not make a note; its job has no texts.
  }
  record.number = journal_->Add(new OwnedJobText(ToJobText(texts)), static_cast<u32>(record.word >> 32));
}

void PlaceKeeper::FinishInJournal(Record& record) {
  if (record.number == 0) return;
  JobJournal::End end;
  if (!record.isGranted) {
    end.outcome = JobOutcome::kCancelled;
  } else if (record.noteView) {
    const ToolNote& note = *static_cast<const ToolNote*>(record.noteView->GetData());
    // Acquire: pairs with the client's release, so that the figures that it wrote before are read.
    end.hasExitCode = note.hasEnded.load(std::memory_order_acquire) != 0;
    if (end.hasExitCode) {
      end.exitCode = note.exitCode;
      end.outcome = note.exitCode == 0 ? JobOutcome::kOk : JobOutcome::kFailed;
      end.cpuUs = note.cpuUs;
      end.peakMemoryBytes = note.peakMemoryBytes;
    }
  }
  journal_->Finish(record.number, std::move(end));
  record.number = 0;
  record.noteView.Reset();
  record.noteRegion.reset();
}

// Ends the record, and clears the table entry if it is still that client's.
void PlaceKeeper::Leave(u32 slot) {
  Record& record = records_[slot];
  GiveBack(slot);
  std::erase(waiting_, slot);
  record.client.Reset();
  record.isGranted = false;
  --clients_;
  u64 word = table_->slots[slot];
  if (IsSameClient(word, record.word)) table_->slots[slot].compare_exchange_strong(word, 0);
}

}  // namespace kestrun
