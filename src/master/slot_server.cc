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

}  // namespace

SlotServer::SlotServer(const std::string& id, JobSlots& slots) : slots_(slots) {
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
  SlotRequest request;
  if (!ReadSlotRequest(data, size, request)) return false;
  {
    const Lock lock(lock_);
    if (isRefusing_) {
      SendAnswer(*server_, client, SlotAnswer::kStopping);
      return true;
    }
    jobs_[client] = {std::move(request.project), std::move(request.commandLine), 0, true, !seesEnd};
  }
  const JobSlots::Ticket ticket = kClientBit | client;
  if (slots_.Ask(ticket, processId, request.header.inputPipe, request.header.outputPipe)) OnGranted(ticket);
  return true;
}

// May come between the two steps of Refuse; a client that was told to stop is not granted any more.
void SlotServer::OnGranted(JobSlots::Ticket ticket) {
  if ((ticket & kClientBit) == 0) return;
  const Client client = ticket & ~kClientBit;
  const Lock lock(lock_);
  const auto found = jobs_.find(client);
  if (found == jobs_.end() || isRefusing_) return;
  Job& job = found->second;
  job.isWaiting = false;
  job.startedAt = GetTickCount();
  SendAnswer(*server_, client, job.keepsOpen ? SlotAnswer::kKeepOpen : SlotAnswer::kGranted);
  if (IsLogOpen()) {
    WriteMasterLog(Log::Info, "Build Job started", {{"project_name", job.project}, {"command", job.commandLine}});
  }
}

void SlotServer::OnGone(Client client) {
  Job job;
  {
    const Lock lock(lock_);
    const auto found = jobs_.find(client);
    if (found == jobs_.end()) return;
    job = std::move(found->second);
    jobs_.erase(found);
  }
  slots_.Leave(kClientBit | client);
  if (job.isWaiting || !IsLogOpen()) return;
  WriteMasterLog(Log::Info, "Build Job ended",
                 {{"project_name", job.project},
                  {"command", job.commandLine},
                  {"elapsed_time", FormatElapsed(GetTickCount() - job.startedAt)}});
}

}  // namespace kestrun
