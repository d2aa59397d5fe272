#include "client/master_connection.h"

#include <algorithm>
#include <utility>

#include "app/console.h"
#include "app/stub_base.h"
#include "client/response_files.h"
#include "protocol/environment_segments.h"
#include "protocol/names.h"
#include "protocol/protocol.h"
#include "runtime/base/environment.h"
#include "runtime/files/log.h"
#include "runtime/process/process_list.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {

namespace {

constexpr u32 kProjectBufferSize = 256;
constexpr u32 kDefaultIpcTimeoutMs = 10000;
// A longer wait is recorded in the log, so that a client that hangs can be told from one that builds.
constexpr u32 kLongWaitMs = 2000;

void LogLongWait(const char* thing) {
  WriteLog(Log::Info, Log::STUB, std::string("Waiting for ") + thing,
           {{"pid", std::to_string(GetCurrentProcessId())}, {"waited_ms", std::to_string(kLongWaitMs)}});
}

void LogStep(const char* step) {
  if (!IsDebugLogOpen()) return;
  WriteLog(Log::Debug, Log::STUB, step, {{"pid", std::to_string(GetCurrentProcessId())}});
}

void ReportObstacle(const std::string& obstacle) {
  if (obstacle.empty()) return;
  PrintWarning(obstacle);
  WriteLog(Log::Warning, Log::STUB, "Could not connect: " + obstacle, {{"pid", std::to_string(GetCurrentProcessId())}});
}

rc_ptr<Message> LogReceived(const rc_ptr<Message>& message) {
  if (message) LogStep("Result received");
  return message;
}

// The master sets the variable for the tools that it runs, and their descendants inherit it.
bool IsInJobOf(const std::string& id) {
  std::string job;
  return GetEnvironmentValue(kJobVariable, job) && job == id;
}

}  // namespace

MasterConnection::MasterConnection(std::string id, IniFile& settings, const Options& options, u32 nestedNoticeMs)
    : id_(std::move(id)),
      settings_(settings),
      options_(options),
      nestedNoticeMs_(nestedNoticeMs),
      warnsOfNesting_(IsInJobOf(id_)) {}

bool MasterConnection::OpenClientAccess() {
  return slot_.Open(id_, settings_.GetBool("Extensions/ReclaimPlaces", false));
}

// A wait is cut at the times of its notices. Without a log and outside of a job the list is empty, and the wait is one
// call.
std::vector<MasterConnection::Notice> MasterConnection::ListNotices(const char* thing) {
  std::vector<Notice> notices;
  if (IsLogOpen()) notices.push_back({kLongWaitMs, [thing] { LogLongWait(thing); }});
  if (warnsOfNesting_) notices.push_back({nestedNoticeMs_, [this] { WarnOfNesting(); }});
  std::sort(notices.begin(), notices.end(),
            [](const Notice& one, const Notice& other) { return one.afterMs < other.afterMs; });
  return notices;
}

ClientSlot::Outcome MasterConnection::WaitForSlot(u32 limitMs) {
  u32 waitedMs = 0;
  for (const Notice& notice : ListNotices("a client slot")) {
    if (notice.afterMs >= limitMs) break;
    const ClientSlot::Outcome outcome = slot_.Wait(notice.afterMs - waitedMs);
    if (outcome != ClientSlot::Outcome::kTimeOver) return outcome;
    waitedMs = notice.afterMs;
    notice.tell();
  }
  return slot_.Wait(limitMs - waitedMs);
}

bool MasterConnection::WaitForAccess(const WaitTexts& texts, const WaitLimits& limits) {
  const std::pair<std::string, std::string> field(texts.fieldName, texts.fieldValue);
  for (u32 waitedMs = 0;;) {
    const ClientSlot::Outcome outcome = WaitForSlot(limits.sliceMs);
    if (outcome == ClientSlot::Outcome::kAdmitted) {
      LogStep("Client slot granted");
      return true;
    }
    if (outcome == ClientSlot::Outcome::kMasterGone) {
      PrintError("the master instance of Kestrun has ended - aborting...");
      return false;
    }
    WriteStandardError(texts.stillWaiting + "\n");
    WriteLog(Log::Warning, Log::STUB, "Still waiting for client access", {field});
    waitedMs += limits.sliceMs;
    if (waitedMs < limits.totalMs) continue;
    PrintError(texts.timedOut);
    WriteLog(Log::Error, Log::STUB, "Timed out waiting for client access",
             {field, {"timeout (ms)", std::to_string(limits.totalMs)}});
    return false;
  }
}

void MasterConnection::WarnOfNesting() {
  warnsOfNesting_ = false;
  PrintWarning("waiting inside a job of the same build; with TransparentTools nested jobs share a slot");
}

rc_ptr<Message> MasterConnection::BuildRequest(const Path& toolPath, const std::string& toolArgs,
                                               const std::string& project) {
  rc_ptr<Message> request = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
  request->AddPath(SEG_TOOL, toolPath)
      .AddString(SEG_WORKING_DIR, GetWorkingDirectory())
      .AddString(SEG_ARGUMENTS, ExpandResponseFiles(toolArgs))
      .AddString(SEG_PROJECT, project)
      .AddU32(SEG_FLAGS, options_.flags)
      .AddU32(SEG_JOB_TIMEOUT, options_.timeoutSeconds)
      .AddString(SEG_JOB_NAME, options_.name);
  AddEnvironment(*request);
  // By the process id the master finds the job below which this client runs.
  if (settings_.GetBool("Extensions/TransparentTools", false)) {
    request->AddU32(SEG_CLIENT_PROCESS, GetCurrentProcessId());
  }
  return request;
}

void MasterConnection::AddEnvironment(Message& request) {
  if (environment_.empty()) environment_ = MakeEnvironmentSegments(GetEnvironment());
  for (const rc_ptr<Message::Segment>& variable : environment_) request.AddSegment(variable.Get());
}

bool MasterConnection::Connect() {
  if (GetChannel()) return true;
  rc_ptr<IpcSocket> socket = new IpcSocket;
  const u32 timeoutMs = settings_.GetInt("LocalSettings/IpcTimeout", kDefaultIpcTimeoutMs);
  const u32 start = GetTickCount();
  const bool isConnected = socket->Connect(GetListeningName(id_), timeoutMs);
  // The introduction is one call, so this wait can only be recorded after it.
  if (GetTickCount() - start >= kLongWaitMs) LogLongWait("the introduction to the master");
  if (!isConnected) {
    ReportObstacle(socket->GetObstacle());
    const std::string count = std::to_string(CountProcesses("kestrun.exe"));
    WriteStandardError("There are currently " + count + " instances of kestrun.exe running.\n");
    return false;
  }
  rc_ptr<IpcChannel> channel = new IpcChannel(socket);
  LogStep("Connected to the master");
  const Lock lock(lock_);
  channel_ = channel;
  return true;
}

bool MasterConnection::Send(const rc_ptr<Message>& message) {
  if (!Connect()) {
    PrintError("Could not initiate build request to master");
    return false;
  }
  const rc_ptr<IpcChannel> channel = GetChannel();
  if (channel && channel->Send(message)) {
    LogStep(message->GetType() == MSG_BUILD_REQUEST ? "Build request sent" : "Project announced");
    return true;
  }
  PrintError("Error sending build request to master");
  const Lock lock(lock_);
  channel_.Reset();
  return false;
}

rc_ptr<Message> MasterConnection::ReceiveBuffered() {
  const rc_ptr<IpcChannel> channel = GetChannel();
  return channel ? channel->ReceiveBuffered() : nullptr;
}

rc_ptr<Message> MasterConnection::Receive(int timeoutMs) {
  const rc_ptr<IpcChannel> channel = GetChannel();
  if (!channel) return nullptr;
  if (timeoutMs >= 0) return channel->Receive(timeoutMs);
  const u32 start = GetTickCount();
  for (const Notice& notice : ListNotices("the result")) {
    for (u32 waitedMs = 0; waitedMs < notice.afterMs; waitedMs = GetTickCount() - start) {
      // The socket waits for whole seconds, so it may return before the limit while it is still connected.
      const rc_ptr<Message> message = channel->Receive(static_cast<int>(notice.afterMs - waitedMs));
      if (message || !channel->IsConnected()) return LogReceived(message);
    }
    notice.tell();
  }
  return LogReceived(channel->Receive(timeoutMs));
}

// Closed without the lock, which the main thread may need to see that it was stopped. The reference keeps the channel
// alive while the main thread drops its own.
void MasterConnection::Stop() {
  rc_ptr<IpcChannel> channel;
  {
    const Lock lock(lock_);
    isStopped_ = true;
    channel.Swap(channel_);
  }
  if (channel) channel->Close();
}

bool MasterConnection::IsStopped() {
  const Lock lock(lock_);
  return isStopped_;
}

rc_ptr<IpcChannel> MasterConnection::GetChannel() {
  const Lock lock(lock_);
  return channel_;
}

std::string ChooseProject(const Options& options) {
  const std::string project = ReadBoundedVariable("KESTRUN_PROJECT", kProjectBufferSize);
  return project.empty() ? options.project : project;
}

bool HasSendableDirectory() {
  if (!GetWorkingDirectory().empty()) return true;
  // The system answers with the length for a name that is too long, and fails for a folder that is gone.
  if (GetCurrentDirectoryA(0, nullptr) == 0 && GetLastError() == ERROR_FILE_NOT_FOUND) {
    PrintError("the working directory has been deleted");
    return false;
  }
  PrintError("the name of the working directory is too long to be sent to the master");
  return false;
}

}  // namespace kestrun
