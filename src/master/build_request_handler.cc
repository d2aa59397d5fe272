#include "master/build_request_handler.h"

#include <algorithm>
#include <utility>

#include "master/master_log.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"
#include "runtime/exception.h"

namespace kestrun {

namespace {

constexpr u32 kThreadEndMs = 30000;

bool ReadNested(const Message::Segment& container, u32 type, std::string& out) {
  const rc_ptr<Message::Segment> segment = container.FindNested(type);
  return segment && GetValue(*segment, out);
}

bool HoldsText(const Message::Segment& container, u32 type, const std::string& text) {
  const rc_ptr<Message::Segment> segment = container.FindNested(type);
  return segment && std::equal(segment->GetDataBegin(), segment->GetDataEnd(), text.begin(), text.end(),
                               [](u8 byte, char c) { return byte == static_cast<u8>(c); });
}

// True if the request's variables are exactly these, in their order, which is how a stub sends them.
bool HasEnvironment(const Message& request, const Environment& environment) {
  auto expected = environment.begin();
  for (u32 i = 0; i < request.GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = request.GetSegment(i);
    if (segment->GetType() != SEG_ENV_VAR) continue;
    if (expected == environment.end() || !HoldsText(*segment, SEG_ENV_NAME, expected->first) ||
        !HoldsText(*segment, SEG_ENV_VALUE, expected->second)) {
      return false;
    }
    ++expected;
  }
  return expected == environment.end();
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

// False if it was refused.
bool BuildRequestHandler::HandleRequest(const rc_ptr<Message>& request) {
  try {
    jobs_.Push(ParseRequest(request));
    return true;
  } catch (const SystemException& e) {
    WriteMasterLog(Log::Error, "Could not create ClientTool object", {{"exception", e.what()}});
    Refuse(*request, e.what());
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
  rc_ptr<BuildJob> job = CreateJob(tool, arguments, workingDirectory, ReadEnvironment(*request), flags | options_.flags,
                                   echoText, project);
  job->timeoutSeconds = timeoutSeconds;
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
  job->commandLine = "\"" + tool + "\" " + arguments;
  job->environment = environment;
  job->flags |= flags;
  job->echoText = echoText;
  job->projectName = projectName;
  return job;
}

// A script's jobs come with one environment, thousands of times over. Where nothing has changed this thread has to be
// faster than the one that parses the messages, or they pile up here.
std::shared_ptr<const Environment> BuildRequestHandler::ReadEnvironment(const Message& request) {
  if (lastEnvironment_ && HasEnvironment(request, *lastEnvironment_)) return lastEnvironment_;
  Environment environment;
  for (u32 i = 0; i < request.GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = request.GetSegment(i);
    if (segment->GetType() != SEG_ENV_VAR) continue;
    std::string name;
    std::string value;
    if (ReadNested(*segment, SEG_ENV_NAME, name) && ReadNested(*segment, SEG_ENV_VALUE, value)) {
      environment[name] = value;
    }
  }
  lastEnvironment_ = std::make_shared<const Environment>(std::move(environment));
  return lastEnvironment_;
}

void BuildRequestHandler::Refuse(const Message& request, const std::string& reason) {
  const rc_ptr<MessageChannel> channel = dispatcher_->FindChannel(request.GetAddress());
  if (!channel) return;
  rc_ptr<Message> refusal = new Message(MSG_BUILD_RESULT, kMasterService, kStubService);
  refusal->AddI32(SEG_EXIT_CODE, 1).AddString(SEG_STDERR, reason + "\r\n").AddString(SEG_STDOUT, "");
  channel->Send(refusal);
}

}  // namespace kestrun
