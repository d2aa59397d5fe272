#include "stubs/script_stub.h"

#include "protocol/message_reader.h"
#include "protocol/protocol.h"
#include "runtime/log.h"
#include "runtime/system_utilities.h"
#include "stubs/console.h"
#include "stubs/job_script.h"
#include "stubs/tool_lookup.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;
constexpr u32 kSendThreadEndMs = 10000;
constexpr int kPollMs = 100;
constexpr int kWithoutLimit = -1;

void WriteLog(Log::Level level, const std::string& message, const Log::Fields& fields = {}) {
  if (Log* log = Log::Get()) log->Write(level, Log::STUB, message, fields);
}

}  // namespace

ScriptStub::ScriptStub(IniFile& settings, const Options& options) : CompilerStub(settings, options, Path()) {}

ScriptStub::~ScriptStub() = default;

int ScriptStub::Run() {
  ReadProject();
  project_ += "(" + std::to_string(GetCurrentProcessId()) + ")";
  if (!OpenClientAccess()) {
    PrintError("Could not access master Kestrun instance (this should have been started by DORN) - aborting...");
    return kFailure;
  }
  const WaitTexts texts{"KESTRUN: " + project_ + " still waiting for access to master instance of Kestrun ...",
                        project_ + " timed out waiting for access to master instance of Kestrun", "project", project_};
  if (!WaitForAccess(texts, WaitLimits()) || !HasNamedDirectory() || !PrepareJobs()) return kFailure;
  if (jobs_.empty()) return 0;
  if (!Connect()) {
    PrintError("Could not initiate build request to master");
    return kFailure;
  }
  return SendAndReceive();
}

void ScriptStub::Stop(const std::string& reason) {
  StopSending(kFailure);
  CompilerStub::Stop(reason);
}

bool ScriptStub::PrepareJobs() {
  std::string text;
  std::string error;
  if (!ReadTextFile(Path(options_.scriptPath), &text, nullptr, &error)) {
    PrintError("Could not load script " + options_.scriptPath + " - aborting...");
    return false;
  }
  if (options_.expandEnvironment) text = ExpandScriptVariables(text);
  for (ScriptJob& job : ParseJobScript(text)) {
    ReplaceMarker(job.arguments, options_.marker);
    const Path tool = FindTool(job.tool);
    if (tool.IsEmpty()) return false;
    rc_ptr<Message> request = BuildRequest(tool, job.arguments);
    request->AddString(SEG_ECHO_TEXT, job.echoText);
    jobs_.push_back(request);
  }
  return true;
}

int ScriptStub::SendAndReceive() {
  rc_ptr<Thread> thread = new Thread("SendJobsThread");
  {
    Lock lock(threadLock_);
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
    Lock lock(threadLock_);
    thread = sendThread_;
  }
  if (!thread) return;
  stopRequested_ = true;
  if (thread->Wait(kSendThreadEndMs)) return;
  WriteLog(Log::Error, "'Send jobs' thread did not stop in time, ending process now",
           {{"timeout", std::to_string(kSendThreadEndMs)}});
  ExitProcess(static_cast<UINT>(exitCodeOnFailure));
}

void ScriptStub::SendJobs() {
  rc_ptr<Message> details = new Message(MSG_PROJECT_DETAILS, kStubService, kMasterService);
  details->AddString(SEG_PROJECT, project_)
      .AddU32(SEG_JOB_COUNT, static_cast<u32>(jobs_.size()))
      .AddU32(SEG_FLAGS, options_.flags);
  if (!SendMessage(details)) FatalError("Could not send initial project details for " + project_ + " to master");
  for (const rc_ptr<Message>& job : jobs_) {
    if (stopRequested_) break;
    if (!SendMessage(job)) FatalError("Could not send job information (project " + project_ + ") to master");
  }
  sendFinished_ = true;
}

// The process ends with the main thread still waiting for results: an exit code of 1 tells more than the end of a
// channel would.
void ScriptStub::FatalError(const std::string& text) {
  PrintError(text);
  WriteLog(Log::Error, text);
  ExitProcess(kFailure);
}

int ScriptStub::ReceiveResults() {
  const rc_ptr<IpcChannel> channel = GetChannel();
  int timeoutMs = kPollMs;
  for (;;) {
    const rc_ptr<Message> message = channel ? channel->Receive(timeoutMs) : nullptr;
    if (!message && timeoutMs == kWithoutLimit) {
      if (!IsStopped()) PrintError("Comms Error waiting for response from master");
      return StubFailureCode;
    }
    if (!message) {
      // While jobs go out an empty result says nothing; afterwards only a lost connection gives one.
      if (sendFinished_) {
        timeoutMs = kWithoutLimit;
      } else {
        SwitchToThread();
      }
      continue;
    }
    if (message->GetType() == MSG_PROJECT_COMPLETE) {
      WriteLog(Log::Info, "Project Complete", {{"project", project_}});
      return resultCode_;
    }
    if (message->GetType() != MSG_BUILD_RESULT) {
      PrintError("Unknown Error waiting for response from master");
      return StubFailureCode;
    }
    if (HandleScriptResult(message)) return resultCode_;
  }
}

bool ScriptStub::HandleScriptResult(const rc_ptr<Message>& message) {
  const MessageReader reader(message);
  const std::string_view stdoutText = reader.GetText(SEG_STDOUT);
  const std::string_view stderrText = reader.GetText(SEG_STDERR);
  i32 code = 0;
  u32 keepGoing = 0;
  reader.ReadInt(SEG_EXIT_CODE, code);
  reader.ReadUnsigned(SEG_KEEP_GOING, keepGoing);
  if (code == StubFailureCode) PrintError(stderrText);
  if (!stdoutText.empty()) WriteStandardOutput(stdoutText);
  if (!stderrText.empty()) WriteStandardError(stderrText);
  WriteLog(Log::Info, "Build Result (script-stub)",
           {{"exit_code", std::to_string(static_cast<u32>(code))}, {"project", project_}});
  if (code != 0) resultCode_ = code;
  return code != 0 && keepGoing == 0;
}

}  // namespace kestrun
