#include "master/build_request_handler.h"

#include <utility>

#include "master/master_log.h"
#include "master/result_sender.h"
#include "protocol/environment_segments.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"
#include "runtime/base/exception.h"

namespace kestrun {

namespace {

constexpr u32 kThreadEndMs = 30000;

// A command line has no way to write a quote in a program's name.
std::string WithoutQuotes(std::string name) {
  std::erase(name, '"');
  return name;
}

}  // namespace

BuildRequestHandler::BuildRequestHandler(IniFile*, const Options& options, MessageDispatcher* dispatcher,
                                         Functor0<void>::Type onJob)
    : dispatcher_(dispatcher), options_(options), onJob_(std::move(onJob)) {
  rc_ptr<Thread> thread = new Thread("BuildRequestThread");
  if (thread->Start(MakeDelegate(&BuildRequestHandler::HandleRequests, this))) threads_.push_back(thread);
}

BuildRequestHandler::~BuildRequestHandler() {
  if (!stopped_) Stop();
}

void BuildRequestHandler::SubmitRequest(const rc_ptr<Message>& request) {
  ++unhandled_;
  requests_.Push(request);
}

// Only the message thread raises unhandled_, and the thread lowers it when a job is in jobs_. So at 0 the thread does
// not parse, does not begin to during this call, and all earlier jobs have their numbers.
bool BuildRequestHandler::TryRequestHere(const rc_ptr<Message>& request) {
  if (unhandled_ != 0) return false;
  HandleRequest(request);
  return true;
}

rc_ptr<BuildJob> BuildRequestHandler::NextJob() {
  rc_ptr<BuildJob> job;
  jobs_.Pop(job, 0);
  return job;
}

void BuildRequestHandler::Stop() {
  stopped_ = true;
  // In front: the requests that are still queued are not worth parsing.
  requests_.PushFront(nullptr);
  for (const rc_ptr<Thread>& thread : threads_) thread->SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  if (!Thread::WaitAll(threads_, kThreadEndMs)) ExitProcess(1);
}

void BuildRequestHandler::HandleRequests() {
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL);
  for (;;) {
    rc_ptr<Message> request;
    if (!requests_.Pop(request, kNoLimit) || !request) return;
    const bool isJob = HandleRequest(request);
    --unhandled_;
    if (isJob && onJob_) onJob_();
  }
}

// Makes a job of the request. False if the request was refused.
bool BuildRequestHandler::HandleRequest(const rc_ptr<Message>& request) {
  try {
    const rc_ptr<BuildJob> job = ParseRequest(request);
    if (IsDebugLogOpen()) {
      WriteMasterLog(Log::Debug, "Job made of a request",
                     {LogField("client_key", job->id), {"address", job->clientAddress.ToString()}});
    }
    jobs_.Push(job);
    return true;
  } catch (const SystemException& e) {
    WriteMasterLog(Log::Error, "Could not create ClientTool object", {{"exception", e.what()}});
    SendRefusal(dispatcher_->FindChannel(request->GetAddress()), e.what());
    return false;
  }
}

rc_ptr<BuildJob> BuildRequestHandler::ParseRequest(const rc_ptr<Message>& request) {
  const MessageReader reader(request);
  std::string tool;
  std::string arguments;
  std::string workingDirectory;
  reader.RequireString(SEG_TOOL, tool);
  reader.RequireString(SEG_ARGUMENTS, arguments);
  reader.RequireString(SEG_WORKING_DIR, workingDirectory);
  std::string project;
  std::string echoText;
  u32 flags = 0;
  reader.ReadString(SEG_PROJECT, project);
  reader.ReadUnsigned(SEG_FLAGS, flags);
  reader.ReadString(SEG_ECHO_TEXT, echoText);
  u32 timeoutSeconds = 0;
  reader.ReadUnsigned(SEG_JOB_TIMEOUT, timeoutSeconds);
  rc_ptr<BuildJob> job =
      CreateJob(tool, arguments, workingDirectory, FindEnvironment(request), flags | options_.flags, echoText, project);
  job->timeoutSeconds = timeoutSeconds;
  reader.ReadString(SEG_JOB_NAME, job->name);
  reader.ReadUnsigned(SEG_CLIENT_PROCESS, job->clientProcess);
  reader.ReadUnsigned(SEG_SCRIPT_LINE, job->scriptLine);
  job->clientAddress = request->GetAddress();
  return job;
}

rc_ptr<BuildJob> BuildRequestHandler::CreateJob(const std::string& tool, const std::string& arguments,
                                                const Path& workingDirectory,
                                                const std::shared_ptr<const Environment>& environment, u32 flags,
                                                const std::string& echoText, const std::string& projectName) {
  rc_ptr<BuildJob> job = new BuildJob(++nextJobId_);
  job->toolPath = tool;
  job->workingDirectory = workingDirectory;
  job->commandLine = "\"" + WithoutQuotes(tool) + "\" " + arguments;
  job->environment = environment;
  job->flags |= flags;
  job->echoText = echoText;
  job->projectName = projectName;
  return job;
}

// All jobs of a script have the same environment, so each request's environment is compared with the last one's and
// parsed only if it differs. Parsing each takes longer than receiving a request, and requests would pile up in memory.
std::shared_ptr<const Environment> BuildRequestHandler::FindEnvironment(const rc_ptr<Message>& request) {
  const bool isKnown =
      lastEnvironment_ && (ShareEnvironment(*request, *lastRequest_) || HasEnvironment(*request, *lastEnvironment_));
  if (!isKnown) lastEnvironment_ = std::make_shared<const Environment>(ReadEnvironment(*request));
  lastRequest_ = request;
  return lastEnvironment_;
}

}  // namespace kestrun
