#include "client/script_stub.h"

#include <map>

#include "app/console.h"
#include "client/job_script.h"
#include "client/script_file.h"
#include "client/tool_lookup.h"
#include "platform/terminal.h"
#include "protocol/job_label.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"
#include "runtime/files/log.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;
constexpr u32 kSendThreadEndMs = 10000;
constexpr int kPollMs = 100;
constexpr int kWithoutLimit = -1;
// Short jobs end thousands of times a second, and waking up for each result would take as much processor time as the
// master takes for the job. So while many results are missing, the results of this many milliseconds are taken
// together.
constexpr u32 kGatherMs = 2;
// With fewer missing results the delay could be seen at the end of the run.
constexpr std::size_t kManyResults = 64;

}  // namespace

ScriptStub::ScriptStub(IniFile& settings, const Options& options)
    : StubBase(settings, options), connection_(id_, settings_, options_) {}

ScriptStub::~ScriptStub() = default;

int ScriptStub::Run() {
  project_ = ChooseProject(options_) + "(" + std::to_string(GetCurrentProcessId()) + ")";
  if (!connection_.OpenClientAccess()) {
    PrintNoMaster("Could not access master Kestrun instance (this should have been started by DORN) - aborting...");
    return kFailure;
  }
  if (!WaitForAccess() || !HasSendableDirectory() || !PrepareJobs()) return kFailure;
  if (jobs_.empty()) return 0;
  missingResults_ = jobs_.size();
  if (progress_) progress_->Observe(id_);
  if (!connection_.Connect()) {
    PrintError("Could not initiate build request to master");
    return kFailure;
  }
  const int code = SendAndReceive();
  if (progress_) progress_->Finish((options_.flags & FLAG_KEEP_GOING) != 0);
  return code;
}

void ScriptStub::Stop(const std::string&) {
  StopSending(kFailure);
  connection_.Stop();
}

bool ScriptStub::WaitForAccess() {
  const MasterConnection::WaitTexts texts{
      "KESTRUN: " + project_ + " still waiting for access to master instance of Kestrun ...",
      project_ + " timed out waiting for access to master instance of Kestrun", "project", project_};
  return connection_.WaitForAccess(texts, {});
}

bool ScriptStub::PrepareJobs() {
  std::string text;
  if (!ReadScriptFile(Path(options_.scriptPath), text)) {
    PrintError("Could not load script " + options_.scriptPath + " - aborting...");
    return false;
  }
  if (options_.expandEnvironment) text = ExpandScriptVariables(text);
  std::map<std::string, Path> tools;  // each name is looked up once, since a script names few tools in many lines
  std::vector<ScriptProgress::Job> shown;
  const bool hasTerminal = ScriptProgress::HasTerminal();
  const bool isTransparent = settings_.GetBool("Extensions/TransparentTools", false);
  for (ScriptJob& job : ParseJobScript(text)) {
    ReplaceMarker(job.arguments, options_.marker);
    const auto [entry, isNew] = tools.try_emplace(job.tool);
    Path& tool = entry->second;
    if (isNew) tool = FindTool(job.tool);
    if (tool.IsEmpty()) {
      if (isTransparent) PrintError("line " + std::to_string(job.line) + " names that tool; no job was started");
      return false;
    }
    rc_ptr<Message> request = connection_.BuildRequest(tool, job.arguments, project_);
    request->AddString(SEG_ECHO_TEXT, job.echoText);
    jobs_.push_back(request);
    if (!hasTerminal && !isTransparent) continue;
    request->AddU32(SEG_SCRIPT_LINE, job.line);
    if (!request->FindSegment(SEG_CLIENT_PROCESS)) request->AddU32(SEG_CLIENT_PROCESS, GetCurrentProcessId());
    const std::string command = job.arguments.empty() ? job.tool : job.tool + " " + job.arguments;
    shown.push_back({job.line, GetLabel({"", "", job.tool, command, ""}), command});
  }
  if (hasTerminal || isTransparent) {
    const std::size_t columns = hasTerminal ? platform::GetTerminalSize(stderr).columns - 1 : 0;
    progress_ = std::make_unique<ScriptProgress>(std::move(shown), stderr, columns);
  }
  return true;
}

int ScriptStub::SendAndReceive() {
  rc_ptr<Thread> thread = new Thread("SendJobsThread");
  {
    const Lock lock(threadLock_);
    sendThread_ = thread;
  }
  if (!thread->Start(MakeDelegate(&ScriptStub::SendJobs, this))) FatalError("Could not start the 'send jobs' thread");
  int code = kFailure;
  try {
    code = ReceiveResults();
  } catch (const SystemException&) {
    StopSending(kFailure);
    throw;
  }
  StopSending(code);
  return code;
}

void ScriptStub::StopSending(int exitCodeOnFailure) {
  rc_ptr<Thread> thread;
  {
    const Lock lock(threadLock_);
    thread = sendThread_;
  }
  if (!thread) return;
  // The sender sees the flag between two jobs. If it is blocked on a full ring it does not, and the process ends after
  // the limit below.
  stopRequested_ = true;
  if (thread->Wait(kSendThreadEndMs)) return;
  WriteLog(Log::Error, Log::STUB, "'Send jobs' thread did not stop in time, ending process now",
           {{"timeout", std::to_string(kSendThreadEndMs)}});
  ExitProcess(static_cast<UINT>(exitCodeOnFailure));
}

void ScriptStub::SendJobs() {
  rc_ptr<Message> details = new Message(MSG_PROJECT_DETAILS, kStubService, kMasterService);
  details->AddString(SEG_PROJECT, project_)
      .AddU32(SEG_JOB_COUNT, static_cast<u32>(jobs_.size()))
      .AddU32(SEG_FLAGS, options_.flags);
  if (!connection_.Send(details)) FatalError("Could not send initial project details for " + project_ + " to master");
  for (const rc_ptr<Message>& job : jobs_) {
    if (stopRequested_) break;
    if (!connection_.Send(job)) FatalError("Could not send job information (project " + project_ + ") to master");
  }
  sendFinished_ = true;
}

// Called on the sending thread while the main thread waits for results. The process ends here with exit code 1, before
// the main thread reports the end of the channel as a communication error.
void ScriptStub::FatalError(const std::string& text) {
  PrintError(text);
  WriteLog(Log::Error, Log::STUB, text);
  ExitProcess(kFailure);
}

int ScriptStub::ReceiveResults() {
  int timeoutMs = kPollMs;
  for (;;) {
    const rc_ptr<Message> message = ReceiveNext(timeoutMs);
    if (!message && timeoutMs == kWithoutLimit) {
      if (!connection_.IsStopped()) PrintError("Comms Error waiting for response from master");
      return StubFailureCode;
    }
    if (!message) {
      // While jobs are being sent, an empty result is only a timeout; afterwards it means a lost connection.
      if (sendFinished_) {
        timeoutMs = kWithoutLimit;
      } else {
        SwitchToThread();
      }
      continue;
    }
    if (message->GetType() == MSG_PROJECT_COMPLETE) {
      WriteLog(Log::Info, Log::STUB, "Project Complete", {{"project", project_}});
      return resultCode_;
    }
    if (message->GetType() != MSG_BUILD_RESULT) {
      PrintError("Unknown Error waiting for response from master");
      return StubFailureCode;
    }
    if (HandleScriptResult(message)) return resultCode_;
  }
}

rc_ptr<Message> ScriptStub::ReceiveNext(int timeoutMs) {
  if (mayGather_ && missingResults_ > kManyResults) {
    if (rc_ptr<Message> message = connection_.ReceiveBuffered()) return message;
    Sleep(kGatherMs);
  }
  return connection_.Receive(timeoutMs);
}

// A part of the output that comes before the result has no exit code.
void ScriptStub::TellProgress(const Message& message, i32 code) {
  u32 line = 0;
  const rc_ptr<Message::Segment> segment = message.FindSegment(SEG_SCRIPT_LINE);
  if (segment) GetValue(*segment, line);
  progress_->Show();
  if (message.FindSegment(SEG_EXIT_CODE)) progress_->OnResult(line, code);
}

bool ScriptStub::HandleScriptResult(const rc_ptr<Message>& message) {
  const MessageReader reader(message);
  const std::string_view stdoutText = reader.GetText(SEG_STDOUT);
  const std::string_view stderrText = reader.GetText(SEG_STDERR);
  i32 code = 0;
  u32 keepGoing = 0;
  // Parts of the output have no exit code; the result that follows them has.
  const bool isEnd = reader.ReadInt(SEG_EXIT_CODE, code);
  reader.ReadUnsigned(SEG_KEEP_GOING, keepGoing);
  // A job that prints is shown without delay.
  mayGather_ = stdoutText.empty() && stderrText.empty();
  if (isEnd && missingResults_ > 0) --missingResults_;
  if (progress_ && (!mayGather_ || code == StubFailureCode)) progress_->Hide();
  if (code == StubFailureCode) PrintError(stderrText);
  if (!stdoutText.empty()) WriteStandardOutput(stdoutText);
  if (!stderrText.empty()) WriteStandardError(stderrText);
  if (progress_) TellProgress(*message, code);
  if (IsLogOpen()) {
    WriteLog(Log::Info, Log::STUB, "Build Result (script-stub)",
             {{"exit_code", std::to_string(static_cast<u32>(code))}, {"project", project_}});
  }
  if (code != 0) resultCode_ = code;
  return code != 0 && keepGoing == 0;
}

}  // namespace kestrun
