#include "stubs/compiler_stub.h"

#include <cstdio>

#include "protocol/message_reader.h"
#include "protocol/names.h"
#include "protocol/protocol.h"
#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/process_list.h"
#include "stubs/annotations.h"
#include "stubs/console.h"
#include "stubs/echo_stream.h"
#include "stubs/response_files.h"
#include "transport/ipc_socket.h"

namespace kestrun {

namespace {

constexpr u32 kProjectBufferSize = 256;
constexpr u32 kDefaultIpcTimeoutMs = 10000;
constexpr int kFailure = 1;
constexpr int kCtrlBreak = 1;

}  // namespace

CompilerStub::CompilerStub(IniFile& settings, const Options& options, const Path& toolPath)
    : StubBase(settings, options), project_(options.project), jobName_(options.name), toolPath_(toolPath) {}

int CompilerStub::Run() {
  ReadProject();
  if (!OpenClientAccess()) {
    PrintError("could not access master Kestrun instance (this should have been started by DORN) - aborting...");
    return kFailure;
  }
  const WaitTexts texts{"KESTRUN: warning: " + jobName_ + " still waiting for access to master instance of Kestrun ...",
                        jobName_ + " timed out waiting for access to master instance of Kestrun", "title", jobName_};
  if (!WaitForAccess(texts, WaitLimits())) return kFailure;
  if (!HasNamedDirectory()) {
    PrintWarning("building locally...");
    return RunLocally();
  }
  int exitCode = -1;
  if (SendMessage(BuildRequest(toolPath_, options_.toolArgs)) && WaitForResult(exitCode)) return exitCode;
  if (IsStopped()) return kFailure;
  PrintWarning("building locally...");
  return RunLocally();
}

// The copies keep both alive here while Run lets go of them.
void CompilerStub::Stop(const std::string&) {
  rc_ptr<Process> process;
  rc_ptr<IpcChannel> channel;
  {
    Lock lock(stateLock_);
    stopped_ = true;
    process = localProcess_;
    channel.Swap(channel_);
  }
  if (process && !process->SendCtrlEvent(kCtrlBreak)) process->Terminate();
  if (channel) channel->Close();
}

// A request without a directory would run its tool where the master stands.
bool CompilerStub::HasNamedDirectory() {
  if (!GetWorkingDirectory().empty()) return true;
  PrintError("the name of the working directory is too long to be sent to the master");
  return false;
}

void CompilerStub::ReadProject() {
  const std::string project = ReadBoundedVariable("KESTRUN_PROJECT", kProjectBufferSize);
  if (!project.empty()) project_ = project;
}

bool CompilerStub::OpenClientAccess() {
  return place_.Open(id_, settings_.GetBool("Extensions/ReclaimPlaces", false));
}

bool CompilerStub::WaitForAccess(const WaitTexts& texts, const WaitLimits& limits) {
  Log* const log = Log::Get();
  for (u32 waitedMs = 0;;) {
    const ClientPlace::Outcome outcome = place_.Wait(limits.sliceMs);
    if (outcome == ClientPlace::Outcome::kAdmitted) return true;
    if (outcome == ClientPlace::Outcome::kMasterGone) {
      PrintError("the master instance of Kestrun has ended - aborting...");
      return false;
    }
    WriteStandardError(texts.stillWaiting + "\n");
    const std::pair<std::string, std::string> field(texts.fieldName, texts.fieldValue);
    if (log != nullptr) log->Write(Log::Warning, Log::STUB, "Still waiting for client access", {field});
    waitedMs += limits.sliceMs;
    if (waitedMs < limits.totalMs) continue;
    PrintError(texts.timedOut);
    if (log != nullptr) {
      log->Write(Log::Error, Log::STUB, "Timed out waiting for client access",
                 {field, {"timeout (ms)", std::to_string(limits.totalMs)}});
    }
    return false;
  }
}

rc_ptr<Message> CompilerStub::BuildRequest(const Path& toolPath, const std::string& toolArgs) {
  rc_ptr<Message> request = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
  request->AddPath(SEG_TOOL, toolPath)
      .AddString(SEG_WORKING_DIR, GetWorkingDirectory())
      .AddString(SEG_ARGUMENTS, ExpandResponseFiles(toolArgs))
      .AddString(SEG_PROJECT, project_)
      .AddU32(SEG_FLAGS, options_.flags)
      .AddU32(SEG_JOB_TIMEOUT, options_.timeoutSeconds)
      .AddString(SEG_JOB_NAME, jobName_);
  AddEnvironment(*request);
  return request;
}

void CompilerStub::AddEnvironment(Message& request) {
  if (environment_.empty()) {
    for (const auto& [name, value] : GetEnvironment()) {
      rc_ptr<Message::Segment> variable = new Message::Segment(SEG_ENV_VAR);
      variable->AddNested(Message::Segment::FromString(SEG_ENV_NAME, name).Get());
      variable->AddNested(Message::Segment::FromString(SEG_ENV_VALUE, value).Get());
      environment_.push_back(variable);
    }
  }
  for (const rc_ptr<Message::Segment>& variable : environment_) request.AddSegment(variable.Get());
}

bool CompilerStub::Connect() {
  if (GetChannel()) return true;
  rc_ptr<IpcSocket> socket = new IpcSocket;
  const u32 timeoutMs = settings_.GetInt("LocalSettings/IpcTimeout", kDefaultIpcTimeoutMs);
  if (!socket->Connect(GetListeningName(id_), timeoutMs)) {
    const std::string count = std::to_string(CountProcesses("kestrun.exe"));
    WriteStandardError("There are currently " + count + " instances of kestrun.exe running.\n");
    return false;
  }
  rc_ptr<IpcChannel> channel = new IpcChannel(socket);
  Lock lock(stateLock_);
  channel_ = channel;
  return true;
}

bool CompilerStub::SendMessage(const rc_ptr<Message>& message) {
  if (!Connect()) {
    PrintError("Could not initiate build request to master");
    return false;
  }
  rc_ptr<IpcChannel> channel = GetChannel();
  if (channel && channel->Send(message)) return true;
  PrintError("Error sending build request to master");
  Lock lock(stateLock_);
  channel_.Reset();
  return false;
}

rc_ptr<IpcChannel> CompilerStub::GetChannel() {
  Lock lock(stateLock_);
  return channel_;
}

bool CompilerStub::IsStopped() {
  Lock lock(stateLock_);
  return stopped_;
}

bool CompilerStub::WaitForResult(int& exitCode) {
  rc_ptr<IpcChannel> channel = GetChannel();
  for (;;) {
    const rc_ptr<Message> message = channel ? channel->Receive(-1) : nullptr;
    if (!message) {
      if (!IsStopped()) PrintError("Error waiting for response from master");
      return false;
    }
    if (message->GetType() != MSG_BUILD_RESULT) return false;
    if (HandleResult(message, exitCode)) return true;
  }
}

bool CompilerStub::HandleResult(const rc_ptr<Message>& message, int& exitCode) {
  const MessageReader reader(message);
  const std::string_view stdoutText = reader.GetText(SEG_STDOUT);
  const std::string_view stderrText = reader.GetText(SEG_STDERR);
  i32 code = 0;
  const bool isLast = reader.ReadInt(SEG_EXIT_CODE, code);
  if (isLast && code == StubFailureCode) {
    PrintError(stderrText);
    return true;
  }
  if (!stdoutText.empty()) WriteStandardOutput(stdoutText);
  if (!stderrText.empty()) WriteStandardError(stderrText);
  if (isLast) exitCode = code;
  return isLast;
}

int CompilerStub::RunLocally() {
  const std::string command = StripAnnotations(options_.tool + " " + options_.toolArgs);
  rc_ptr<Process> process = new Process("");
  process->SetApplicationPath(toolPath_);
  {
    Lock lock(stateLock_);
    if (stopped_) return kFailure;
    localProcess_ = process;
  }
  // Where the process is stopped from here on, the job goes with it, and the tool with the job.
  rc_ptr<Stream> out = new EchoStream(stdout);
  rc_ptr<Stream> err = new EchoStream(stderr);
  return process->Run(command, out.Get(), err.Get(), Process::OWN_JOB, nullptr, 0, false);
}

}  // namespace kestrun
