#include "master/project_stub.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "app/console.h"
#include "master/format_elapsed.h"
#include "master/local_time.h"
#include "master/master_log.h"
#include "master/repeated_event.h"
#include "master/result_sender.h"
#include "platform/tool_process.h"
#include "protocol/limits.h"
#include "protocol/message_reader.h"
#include "protocol/names.h"
#include "protocol/protocol.h"
#include "runtime/files/version_string.h"
#include "runtime/threads/event_timer.h"
#include "transport/shared/ipc_socket.h"
#include "transport/sockets/local_host.h"
#include "transport/sockets/socket_stream.h"

namespace kestrun {

namespace {

constexpr const char* kNoThreads = "The master cannot start its threads: too little memory, or too many processes.";
constexpr const char* kInstanceEvent = "Global\\dorn_kr_project_stub";
constexpr const char* kEventsCondition = "PLOVR2_WAIT_FOR_EVENTS_CONDITION";
constexpr const char* kJobsKey = "LocalSettings/MaxConcurrentJobs";
constexpr u32 kDefaultMaxStubs = 30;
constexpr u32 kMostStubs = MessageDispatcher::kMaxIpcChannels;
// Up to one unfinished job for each stub that there can be, the queue counts as short.
constexpr std::size_t kFewJobs = kMostStubs;
// The number of failed jobs that the last record of the log lists with DiscardOutput, which bounds the memory.
constexpr std::size_t kMostFailures = 1000;
constexpr u32 kSocketWriteLimitMs = 30000;
constexpr u32 kTickMs = 500;
constexpr u32 kShutdownPauseMs = 500;

u32 ReadMaxStubs(IniFile& settings) {
  const u32 wanted = settings.GetInt("LocalSettings/MaxStubs", kDefaultMaxStubs);
  if (wanted == 0) return kDefaultMaxStubs;
  if (wanted <= kMostStubs) return wanted;
  const std::string text = "MaxStubs is " + std::to_string(wanted) + ", using " + std::to_string(kMostStubs);
  PrintWarning(text);
  WriteMasterLog(Log::Warning, text);
  return kMostStubs;
}

u32 ReadMaxJobs(IniFile& settings) {
  const u32 wanted = settings.GetInt(kJobsKey, ProjectStub::kDefaultMaxConcurrentJobs);
  if (wanted <= kMostConcurrentJobs) return wanted;
  const std::string text = "MaxConcurrentJobs is " + std::to_string(static_cast<i32>(wanted)) +
                           ", which is not between 0 and " + std::to_string(kMostConcurrentJobs) + "; using " +
                           std::to_string(ProjectStub::kDefaultMaxConcurrentJobs);
  PrintError(text);
  WriteMasterLog(Log::Error, text);
  settings.SetInt(kJobsKey, ProjectStub::kDefaultMaxConcurrentJobs);
  return ProjectStub::kDefaultMaxConcurrentJobs;
}

// Open to every user of the machine.
UniqueHandle CreateInstanceEvent() {
  SECURITY_DESCRIPTOR everyone;
  InitializeSecurityDescriptor(&everyone, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&everyone, TRUE, nullptr, FALSE);
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.lpSecurityDescriptor = &everyone;
  attributes.bInheritHandle = FALSE;
  return UniqueHandle(CreateEventA(&attributes, TRUE, FALSE, kInstanceEvent));
}

std::unique_ptr<JobSlots> MakeSlots(IniFile& settings) {
  if (!settings.GetBool("Extensions/TransparentTools", false)) return nullptr;
  return std::make_unique<JobSlots>(ReadMaxJobs(settings), platform::ParentProcess);
}

// Inheritable: the tools of the build may use the event, too.
UniqueHandle OpenNamedEvent(const std::string& name) {
  if (name.empty()) return UniqueHandle();
  return UniqueHandle(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, TRUE, name.c_str()));
}

rc_ptr<Message> OwnMessage(u32 type) {
  return new Message(type, kMasterService, kMasterService);
}

}  // namespace

ProjectStub::ProjectStub(IniFile& settings, const Options& options)
    : StubBase(settings, options),
      stopEvent_(OpenNamedEvent(options.stopEvent)),
      readyEvent_(OpenNamedEvent(options.readyEvent)),
      finishEvent_(OpenNamedEvent(options.finishEvent)),
      isEager_(settings.GetBool("Extensions/EagerScheduling", false)),
      dispatcher_(GetLocalHostName(), 0, GetListeningName(id_)),
      slots_(MakeSlots(settings)),
      journal_(ReadMaxJobs(settings), platform::ParentProcess),
      failures_(settings.GetBool("Extensions/DiscardOutput", false) ? kMostFailures : FailureList::kNoBound),
      scheduler_(ReadMaxJobs(settings), &settings, &dispatcher_, slots_.get(), &journal_),
      requestHandler_(&settings, options, &dispatcher_, MakeJobListener()) {
  if (isEager_) dispatcher_.SetStartDelay(0);
  scheduler_.SetResultTaker([this](const rc_ptr<Message>& result) { return TryResultHere(result); });
  OpenPlaces(settings);
  dispatcher_.AddErrorListener(MakeDelegate(&ProjectStub::OnDispatcherError, this));
  dispatcher_.AddReactorErrorListener(MakeDelegate(&ProjectStub::OnReactorError, this));
  hasThreads_ =
      dispatcher_.AddClient(kMasterService, MakeDelegate(&ProjectStub::HandleMessage, this), 1, MayStubSend) &&
      scheduler_.HasThreads() && requestHandler_.HasThread();
  SocketStream::SetDefaultTimeout(kSocketWriteLimitMs);
  SetEnvironmentVariableA("KESTRUN_ID", id_.c_str());
  if (!slots_) SetEnvironmentVariableA(kJobVariable, id_.c_str());
  if (stopEvent_ && !StartWaitThread()) hasThreads_ = false;
}

ProjectStub::~ProjectStub() {
  if (waitThread_) {
    waitThreadEnd_->Signal();
    waitThread_->Wait(kNoLimit);
  }
  // If Run ended before its dispatcher ran, the message thread lives until the dispatcher is destroyed, which is after
  // the members that a message handler uses.
  const Lock lock(handlingLock_);
  isEnding_ = true;
}

// If the keeper can't be made, the plain semaphore admits clients, and slots of killed clients are lost.
void ProjectStub::OpenPlaces(IniFile& settings) {
  const u32 places = ReadMaxStubs(settings);
  // An observer must not have the channel of a client that has been granted a slot.
  observers_ = std::make_unique<JobObservers>(
      journal_, dispatcher_, std::min(JobObservers::kMostObservers, kMostStubs - places), platform::UsageOfTree);
  if (settings.GetBool("Extensions/ReclaimPlaces", false)) {
    try {
      placeKeeper_ = std::make_unique<PlaceKeeper>(id_, places);
      return;
    } catch (const SystemException& e) {
      WriteMasterLog(Log::Warning, "Places of lost stubs are not returned", {{"error_msg", e.what()}});
    }
  }
  clientAccess_ = std::make_unique<Semaphore>(static_cast<i32>(places), GetAccessName(id_).c_str());
}

bool ProjectStub::StartWaitThread() {
  eventsCondition_ = std::make_unique<Condition>(kEventsCondition);
  waitThreadEnd_ = std::make_unique<Condition>();
  rc_ptr<Thread> thread = new Thread("WaitForEventsThread");
  if (!thread->Start(MakeDelegate(&ProjectStub::WaitForEvents, this))) return false;
  waitThread_ = thread;
  return true;
}

int ProjectStub::Run() {
  const UniqueHandle instance = CreateInstanceEvent();
  if (instance && GetLastError() == ERROR_ALREADY_EXISTS) {
    PrintError("Another instance of Kestrun is already running.");
    return 1;
  }
  if (!hasThreads_) {
    PrintError(kNoThreads);
    return 1;
  }
  if (!OpenSlotServer()) return 1;
  EventTimer timer("event timer");
  timer.Start();
  WriteMasterLog(Log::Info,
                 "========== Client Build Started ==========", {{"version", GetProgramVersion().ToString()}});
  // The log has the dispatcher's error; this line is for the user or program that started the master.
  if (dispatcher_.Run() != 0) PrintError("The dispatcher has ended with an error.");
  dispatcher_.Close();
  // These are destroyed before the slots, which call the first two as their listener.
  slotServer_.reset();
  slotTable_.reset();
  jobWatch_.reset();
  timer.Stop();
  LogFinished(timer.GetElapsed());
  return exitCode_;
}

// Called once Run knows that no other master runs: the server takes its name over from any server that has it.
bool ProjectStub::OpenSlotServer() {
  if (!slots_) return true;
  try {
    if (platform::kHasLocalStreams) {
      slotServer_ = std::make_unique<SlotServer>(id_, *slots_, journal_);
    } else {
      slotTable_ = std::make_unique<PlaceKeeper>(GetJobSlotsId(id_), *slots_, &journal_);
    }
    jobWatch_ = std::make_unique<JobWatch>(*slots_, platform::ProcessorTimeOfTree);
    return true;
  } catch (const SystemException& e) {
    PrintError(e.what());
    return false;
  }
}

void ProjectStub::LogFinished(u32 elapsedMs) {
  Log::Fields fields{{"elapsed_time", FormatElapsed(elapsedMs)}};
  failures_.AddTo(fields);
  WriteMasterLog(Log::Info, "========== Client Build Finished ==========", fields);
}

void ProjectStub::Stop(const std::string& reason) {
  StopBuild(1, reason);
}

void ProjectStub::HandleMessage(rc_ptr<Message> message) {
  const Lock lock(handlingLock_);
  if (isEnding_) return;
  handlingThread_ = GetCurrentThreadId();
  switch (message->GetType()) {
    case MSG_LOCAL_JOB_RESULT:
      return OnJobResult(message);
    case MSG_BUILD_REQUEST:
      return OnBuildRequest(message);
    case MSG_QUEUE_TICK:
      return OnTick();
    case MSG_JOBS_FINISHED:
      return OnJobsFinished();
    case MSG_STOP:
      return OnStop(message);
    case MSG_DRAIN_REQUESTS:
      return OnDrainRequests();
    case MSG_PROJECT_DETAILS:
      return OnProjectDetails(message);
    case MSG_OBSERVE:
      return observers_->OnRequest(message);
    case MessageDispatcher::kStarted:
      return OnStarted();
    case MessageDispatcher::kClosed:
    case MessageDispatcher::kTimedOut:
      return OnChannelEvent(message);
    default:
      return;
  }
}

// With thousands of jobs a second, waking the message thread for each result takes more time than handling it. Results
// may be handled here because their order among other messages does not matter, and because their handler neither stops
// the queue, which would wait for this thread, nor waits for a client that does not read.
bool ProjectStub::TryResultHere(const rc_ptr<Message>& message) {
  const TryLock lock(handlingLock_);
  if (!lock) return false;
  try {
    HandleMessage(message);
  } catch (const SystemException& e) {
    WriteMasterLog(Log::Error, "Could not handle a job's result", {{"exception", e.what()}});
  }
  return true;
}

void ProjectStub::OnJobResult(const rc_ptr<Message>& message) {
  i32 exitCode = -1;
  u32 jobId = 0;
  i32 elapsedMs = 1;
  u64 startTime = LocalTimeMs();
  const MessageReader reader(message);
  reader.RequireInt(SEG_EXIT_CODE, exitCode);
  reader.ReadUnsigned(SEG_JOB_ID, jobId);
  reader.ReadLong(SEG_START_TIME, startTime);
  reader.ReadInt(SEG_ELAPSED, elapsedMs);

  const rc_ptr<Server> server = scheduler_.GetServer();
  if (!server) return;
  const rc_ptr<BuildJob> job = scheduler_.JobResult(server, jobId, exitCode, message->FindSegment(SEG_STDOUT),
                                                    message->FindSegment(SEG_STDERR), startTime, elapsedMs);
  if (!job) return;
  // A cancelled job has no client any more, and its end says nothing about the build.
  if (exitCode != 0 && !job->isCancelled) failures_.Add(jobId, job->commandLine);
  const rc_ptr<MessageChannel> channel = dispatcher_.FindChannel(job->clientAddress);
  PassResultOn(channel, *message, job->exitCode, (job->flags & FLAG_KEEP_GOING) != 0, job->scriptLine);
  if (IsDebugLogOpen()) {
    WriteMasterLog(Log::Debug, channel ? "Result passed on" : "Result dropped, its client has gone",
                   {LogField("client_key", jobId), {"address", job->clientAddress.ToString()}});
  }
  scheduler_.JobCompleted(job);
}

// A compiler stub waits for its one job, so a short queue is parsed at once. Most of a script's thousands of jobs wait
// for others anyway; they are parsed on the request thread, because an unparsed message takes more memory than a job.
void ProjectStub::OnBuildRequest(const rc_ptr<Message>& request) {
  if (IsDebugLogOpen()) {
    WriteMasterLog(Log::Debug, "Build request received", {{"address", request->GetAddress().ToString()}});
  }
  const bool isOneOfFew = isEager_ && isStarted_ && scheduler_.CountUnfinishedJobs() < kFewJobs;
  if (isOneOfFew && requestHandler_.TryRequestHere(request)) {
    OnDrainRequests();
  } else {
    requestHandler_.SubmitRequest(request);
  }
}

void ProjectStub::OnTick() {
  dispatcher_.Post(OwnMessage(MSG_DRAIN_REQUESTS), false);
  // Each job that the request thread makes after the start asks for a drain itself.
  if (!isEager_) dispatcher_.PostDelayed(OwnMessage(MSG_QUEUE_TICK), 0, kTickMs);
}

void ProjectStub::OnJobsFinished() {
  WriteMasterLog(Log::Info, "Finished Jobs");
}

void ProjectStub::OnStop(const rc_ptr<Message>& message) {
  std::string reason = "STOP command received";
  MessageReader(message).ReadString(SEG_STOP_REASON, reason);
  StopBuild(0, reason);
}

void ProjectStub::OnDrainRequests() {
  while (const rc_ptr<BuildJob> job = requestHandler_.NextJob()) scheduler_.AddJob(job);
  scheduler_.ScheduleIfPending();
}

Functor0<void>::Type ProjectStub::MakeJobListener() {
  if (!isEager_) return {};
  return MakeDelegate(&ProjectStub::OnJobReady, this);
}

// Nothing is scheduled before the start; the first tick drains the jobs that arrived until then.
void ProjectStub::OnJobReady() {
  if (isStarted_) dispatcher_.Post(OwnMessage(MSG_DRAIN_REQUESTS), false);
}

void ProjectStub::OnProjectDetails(const rc_ptr<Message>& message) {
  const MessageReader reader(message);
  std::string name;
  u32 jobCount = 0;
  u32 flags = 0;
  if (!reader.ReadString(SEG_PROJECT, name)) return;
  reader.ReadUnsigned(SEG_JOB_COUNT, jobCount);
  reader.ReadUnsigned(SEG_FLAGS, flags);
  scheduler_.NewProject(name, jobCount, flags, message->GetAddress());
}

void ProjectStub::OnStarted() {
  if (!CheckListener()) {
    StopBuild(1, "No listener");
    return;
  }
  isStarted_ = true;
  if (readyEvent_) SetEvent(readyEvent_.Get());
  OnTick();
}

bool ProjectStub::CheckListener() {
  if (dispatcher_.IsListening()) return true;
  const std::size_t longest = IpcSocket::kMaxListeningName - GetListeningName("").size();
  const UniqueHandle ofOther(OpenFileMappingA(FILE_MAP_READ, FALSE, GetListeningName(id_).c_str()));
  if (id_.size() > longest) {
    PrintError("the id is too long, it may have " + std::to_string(longest) + " bytes: " + id_);
  } else if (ofOther) {
    PrintError("cannot listen for clients, another process still uses the id " + id_);
  } else {
    PrintError("cannot listen for clients with the id " + id_);
  }
  return false;
}

// Unless the scheduler cancels them, the jobs of a lost stub run to their end, and their results are dropped because
// there is no channel to send them on.
void ProjectStub::OnChannelEvent(const rc_ptr<Message>& message) {
  const Address& address = message->GetAddress();
  observers_->OnGone(address);
  scheduler_.ClientGone(address);
  if (address.GetKind() == Address::kIpc) return;
  WriteMasterLog(Log::Warning, "Unknown channel disconnected", {{"address", address.ToString()}});
}

void ProjectStub::StopBuild(int code, const std::string& reason) {
  exitCode_ = code;
  WriteMasterLog(Log::Info, "Build Stopped", {{"reason", reason}});
  WriteMasterLog(Log::Info, "Finished Jobs");
  Shutdown();
}

// In this order: no client and no build thread waits for a slot any more, so that the tools' threads end; their results
// are posted or sent; then the channels empty, and the dispatcher ends Run.
void ProjectStub::Shutdown() {
  if (slotServer_) slotServer_->Refuse();
  if (slots_) slots_->Stop();
  scheduler_.Stop();
  requestHandler_.Stop();
  observers_->Stop();
  if (isEager_ && handlingThread_ == GetCurrentThreadId()) {
    // Results that are not sent yet are queued behind the message that this thread handles, so that a pause would not
    // get them sent.
    dispatcher_.WaitUntilSent(kShutdownPauseMs);
  } else {
    Sleep(kShutdownPauseMs);
  }
  dispatcher_.Stop();
}

// The loop of the wait thread. A stop is posted and not handled here, so that it comes after the messages before it.
void ProjectStub::WaitForEvents() {
  RepeatedEvent finish(finishEvent_.Get());
  for (;;) {
    std::vector<HANDLE> handles{stopEvent_.Get(), eventsCondition_->GetHandle(), waitThreadEnd_->GetHandle()};
    if (finishEvent_ && finish.IsAwaited()) handles.push_back(finishEvent_.Get());
    const DWORD index =
        WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, finish.GetLimitMs());
    if (index == WAIT_TIMEOUT) {
      if (finish.Look()) dispatcher_.Post(OwnMessage(MSG_JOBS_FINISHED), false);
      continue;
    }
    if (index >= handles.size()) continue;
    if (handles[index] == stopEvent_.Get()) {
      rc_ptr<Message> stop = OwnMessage(MSG_STOP);
      stop->AddString(SEG_STOP_REASON, "STOP event from parent process");
      dispatcher_.Post(stop, false);
      return;
    }
    if (handles[index] != finishEvent_.Get()) return;
    finish.OnSet();
    dispatcher_.Post(OwnMessage(MSG_JOBS_FINISHED), false);
  }
}

void ProjectStub::OnDispatcherError(std::string text) {
  Stop("MessageDispatcher error: " + text);
}
void ProjectStub::OnReactorError(std::string text) {
  Stop("Reactor error: " + text);
}

}  // namespace kestrun
