#include "master/slot_server.h"

#include <vector>

#include "master/format_elapsed.h"
#include "master/master_log.h"
#include "protocol/slot_request.h"
#include "runtime/threads/sync.h"

namespace kestrun {

namespace {

// Tickets of clients are told from those of the master's own threads by this bit.
constexpr JobSlots::Ticket kClientBit = JobSlots::Ticket{1} << 63;

void SendAnswer(platform::LocalServer& server, platform::LocalServer::Client client, SlotAnswer answer) {
  server.Answer(client, &answer, sizeof answer);
}

void SetEnd(const platform::ProcessEnd& process, JobJournal::End& end) {
  end.cpuUs = process.cpuUs;
  if (!process.isKnown) return;
  end.signal = process.signal;
  end.hasExitCode = process.signal == 0;
  end.exitCode = process.exitCode;
  end.outcome = process.signal != 0     ? JobOutcome::kSignalled
                : process.exitCode != 0 ? JobOutcome::kFailed
                                        : JobOutcome::kOk;
}

}  // namespace

SlotServer::SlotServer(const std::string& id, JobSlots& slots, JobJournal& journal) : slots_(slots), journal_(journal) {
  std::string error;
  server_ = platform::LocalServer::Listen(GetSlotServerName(id), error);
  if (!server_) throw SyncException("cannot listen for clients: " + error);
  slots_.SetListener([this](JobSlots::Ticket ticket) { OnGranted(ticket); });
  thread_ = new Thread("Slot server");
  if (!thread_->Start(MakeDelegate(&SlotServer::Serve, this))) throw SyncException("no thread for the slot server");
}

SlotServer::~SlotServer() {
  server_->Stop();
  thread_->Wait(kNoLimit);
}

void SlotServer::Serve() {
  server_->Run(*this);
}

void SlotServer::Refuse() {
  std::vector<Client> waiting;
  {
    const Lock lock(lock_);
    isRefusing_ = true;
    for (const auto& [client, job] : jobs_) {
      if (job.isWaiting) waiting.push_back(client);
    }
  }
  for (const Client client : waiting) {
    SendAnswer(*server_, client, SlotAnswer::kStopping);
    slots_.Leave(kClientBit | client);
  }
}

bool SlotServer::OnClient(Client client, u32 processId, bool seesEnd, const char* data, std::size_t size) {
  SlotRequestHeader header;
  SlotTexts texts;
  if (!ReadSlotRequest(data, size, header, texts)) return false;
  u64 number = 0;
  {
    const Lock lock(lock_);
    if (isRefusing_) {
      SendAnswer(*server_, client, SlotAnswer::kStopping);
      return true;
    }
    const rc_ptr<OwnedJobText> text = new OwnedJobText(ToJobText(texts));
    number = journal_.Add(text, processId);
    jobs_[client] = {number, text, 0, true, !seesEnd};
  }
  // Without the lock: Ask makes system calls. A slot that becomes free from now on is granted on another thread, which
  // finds the client in jobs_.
  const JobSlots::Ticket ticket = kClientBit | client;
  if (slots_.Ask(ticket, processId, header.inputPipe, header.outputPipe)) OnGranted(ticket);
  // After the answer, which the client waits for.
  journal_.FindParent(number);
  return true;
}

// May come between the two steps of Refuse. A client that is told to stop must not be granted a slot as well, so
// nothing is granted once isRefusing_ is set.
void SlotServer::OnGranted(JobSlots::Ticket ticket) {
  if ((ticket & kClientBit) == 0) return;
  const Client client = ticket & ~kClientBit;
  const Lock lock(lock_);
  const auto found = jobs_.find(client);
  if (found == jobs_.end() || isRefusing_) return;
  Job& job = found->second;
  job.isWaiting = false;
  job.startedAt = GetTickCount();
  const std::int64_t startedUs = SteadyMicroseconds();
  SendAnswer(*server_, client, job.keepsOpen ? SlotAnswer::kKeepOpen : SlotAnswer::kGranted);
  journal_.Start(job.number, slots_.SlotOf(ticket), 0, startedUs);
  if (IsLogOpen()) {
    WriteMasterLog(Log::Info, "Build Job started",
                   {{"project_name", job.text->Get().project}, {"command", job.text->Get().command}});
  }
}

void SlotServer::OnGone(Client client, const std::function<platform::ProcessEnd()>& readEnd) {
  JobJournal::End end;
  end.endedUs = SteadyMicroseconds();
  Job job;
  {
    const Lock lock(lock_);
    const auto found = jobs_.find(client);
    if (found == jobs_.end()) return;
    job = std::move(found->second);
    jobs_.erase(found);
  }
  const u32 elapsedMs = GetTickCount() - job.startedAt;
  // The slot goes to the next client first; reading how the process ended makes system calls.
  slots_.Leave(kClientBit | client);
  if (job.isWaiting) {
    end.outcome = JobOutcome::kCancelled;
  } else if (journal_.IsObserved()) {
    SetEnd(readEnd(), end);
  }
  journal_.Finish(job.number, std::move(end));
  if (!job.isWaiting && IsLogOpen()) LogEnd(job, elapsedMs);
}

void SlotServer::LogEnd(const Job& job, u32 elapsedMs) const {
  const JobText& text = job.text->Get();
  Log::Fields fields{{"project_name", text.project}, {"command", text.command}, {"folder", text.folder}};
  if (!text.name.empty()) fields.emplace_back("name", text.name);
  fields.emplace_back("elapsed_time", FormatElapsed(elapsedMs));
  WriteMasterLog(Log::Info, "Build Job ended", fields);
}

}  // namespace kestrun
