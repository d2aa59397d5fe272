#include "master/local_job_queue.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <string>

#include "master/make_flags.h"
#include "master/master_log.h"
#include "master/result_sender.h"
#include "protocol/protocol.h"
#include "runtime/threads/event_timer.h"
#include "transport/sockets/local_host.h"
#include "transport/sockets/socket_address.h"

namespace kestrun {

namespace {

// The exit code of timeout(1), which users of time limits know.
constexpr int kOverdueCode = 124;
constexpr u64 kTicksInMicrosecond = 10;
constexpr std::size_t kMostHeadBytes = 2048;
constexpr u32 kThreadsEndMs = 30000;
constexpr u32 kOrphanCheckMs = 500;
constexpr u32 kToolFlags = Process::PIPE_STDIN | Process::PIPE_STDOUT | Process::PIPE_STDERR | Process::OWN_JOB;
constexpr u32 kJobFlags = kToolFlags | Process::PRIORITY_BELOW_NORMAL;

void LogJob(const BuildJob& job, const char* message, const Log::Fields& more = {}) {
  if (!IsLogOpen()) return;
  Log::Fields fields{{"project_name", job.projectName}};
  fields.insert(fields.end(), more.begin(), more.end());
  WriteMasterLog(Log::Info, std::string("Local job queue: ") + message, fields);
}

rc_ptr<Message> ResultMessage(const Address& localAddress, const BuildJob& job, const EventTimer& timer, int code,
                              const rc_ptr<MemoryStream>& out, const rc_ptr<MemoryStream>& err) {
  rc_ptr<Message> result = new Message(localAddress, MSG_LOCAL_JOB_RESULT, kMasterService, kMasterService);
  result->AddI32(SEG_JOB_ID, static_cast<i32>(job.id))
      .AddI32(SEG_EXIT_CODE, code)
      .AddContent(SEG_STDOUT, out)
      .AddContent(SEG_STDERR, err)
      .AddU64(SEG_START_TIME, timer.GetStartTime())
      .AddI32(SEG_ELAPSED, static_cast<i32>(timer.GetElapsed()));
  return result;
}

rc_ptr<MemoryStream> TextStream(std::string text) {
  return new MemoryStream(text.data(), static_cast<u32>(text.size()), false);
}

void AddOverdueLine(MemoryStream& output, u32 seconds) {
  const u32 size = output.GetSize();
  std::string text = size > 0 && output.GetData()[size - 1] != '\n' ? "\r\n" : "";
  text += "KESTRUN: error: job ran longer than " + std::to_string(seconds) + " seconds and was ended\r\n";
  if (output.Append(text.data(), static_cast<u32>(text.size())) == 0) throw StreamException("Out of memory");
}

// The beginning of a failed tool's output, for observers to show: of its standard error, or else of standard output.
std::string HeadOf(const Message& result) {
  for (const u32 stream : {SEG_STDERR, SEG_STDOUT}) {
    const rc_ptr<Message::Segment> output = result.FindSegment(stream);
    if (output && output->GetDataLength() > 0) return std::string(output->GetText().substr(0, kMostHeadBytes));
  }
  return "";
}

// The client's environment, or the master's for a job without one, less the pipe of a jobserver. Shared between the
// jobs of a script, and only copied if MAKEFLAGS is set.
std::shared_ptr<const Environment> MakeToolEnvironment(const BuildJob& job) {
  std::shared_ptr<const Environment> given = job.environment;
  if (!given || given->empty()) given = std::make_shared<const Environment>(GetEnvironment());
  const auto makeFlags = given->find("MAKEFLAGS");
  if (makeFlags == given->end()) return given;
  auto changed = std::make_shared<Environment>(*given);
  (*changed)["MAKEFLAGS"] = WithoutJobserverPipe(makeFlags->second);
  return changed;
}

}  // namespace

LocalJobQueue::LocalJobQueue(u32 threadCount, IniFile& settings, MessageDispatcher& dispatcher, JobSlots* slots,
                             u64 outputLimit, JobJournal* journal)
    : dispatcher_(dispatcher),
      localAddress_(SocketAddress(GetLocalHostName(), 0), Address::kTcp, false),
      slots_(slots),
      budget_(new OutputBudget(outputLimit)),
      keepsOutput_(!settings.GetBool("Extensions/DiscardOutput", false)),
      cancelsOrphans_(settings.GetBool("Extensions/CancelOrphanedJobs", false)),
      enforcesTimeout_(settings.GetBool("Extensions/EnforceJobTimeout", false)),
      journal_(journal) {
  const u32 count = std::max(threadCount, u32{1});
  for (u32 i = 0; i < count; ++i) {
    rc_ptr<Thread> thread = new Thread("Local build thread");
    if (thread->Start(MakeDelegate(&LocalJobQueue::LocalBuildLoop, this))) threads_.push_back(thread);
  }
}

LocalJobQueue::~LocalJobQueue() {
  if (!isStopped_) Stop();
}

void LocalJobQueue::Push(const rc_ptr<BuildJob>& job) {
  const Lock lock(nestedLock_);
  if (!IsNested(*job) || !PushNested(job)) jobs_.Push(job);
}

// The jobs of a script come one after the other.
bool LocalJobQueue::IsNested(const BuildJob& job) {
  if (slots_ == nullptr || job.clientProcess == 0) return false;
  if (!(job.clientAddress == lastClient_)) {
    isLastNested_ = slots_->IsBelow(job.clientProcess, GetCurrentProcessId());
    lastClient_ = job.clientAddress;
  }
  return isLastNested_;
}

// False if there is no thread to run it.
bool LocalJobQueue::PushNested(const rc_ptr<BuildJob>& job) {
  if (isStopped_) return true;
  NestedJobs& nested = nested_[job->clientProcess];
  nested.jobs.push_back(job);
  if (nested.threads == threads_.size()) return true;
  std::erase_if(nestedThreads_, [](const rc_ptr<Thread>& thread) { return thread->Wait(0); });
  rc_ptr<Thread> thread = new Thread("Local build thread");
  newClients_.push_back(job->clientProcess);
  if (thread->Start(MakeDelegate(&LocalJobQueue::NestedLoop, this))) {
    nestedThreads_.push_back(thread);
    ++nested.threads;
    return true;
  }
  newClients_.pop_back();
  if (nested.threads > 0) return true;
  nested_.erase(job->clientProcess);
  return false;
}

void LocalJobQueue::NestedLoop() {
  u32 client = 0;
  {
    const Lock lock(nestedLock_);
    client = newClients_.front();
    newClients_.pop_front();
  }
  while (const rc_ptr<BuildJob> job = PopNested(client)) HandleJob(*job, 0);
}

// Null ends the thread.
rc_ptr<BuildJob> LocalJobQueue::PopNested(u32 client) {
  const Lock lock(nestedLock_);
  NestedJobs& nested = nested_[client];
  if (isStopped_ || nested.jobs.empty()) {
    if (--nested.threads == 0) nested_.erase(client);
    return nullptr;
  }
  const rc_ptr<BuildJob> job = nested.jobs.front();
  nested.jobs.pop_front();
  return job;
}

std::vector<rc_ptr<Thread>> LocalJobQueue::ListThreads() {
  const Lock lock(nestedLock_);
  std::vector<rc_ptr<Thread>> threads = threads_;
  threads.insert(threads.end(), nestedThreads_.begin(), nestedThreads_.end());
  return threads;
}

void LocalJobQueue::Stop() {
  {
    // From here on no further thread is started.
    const Lock lock(nestedLock_);
    isStopped_ = true;
  }
  const std::vector<rc_ptr<Thread>> threads = ListThreads();
  // Otherwise a tool could wait for a client that does not read, and its thread for the tool.
  budget_->Lift();
  for (std::size_t i = 0; i < threads_.size(); ++i) jobs_.PushFront(nullptr);
  for (const rc_ptr<Thread>& thread : threads) thread->SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  const u32 start = GetTickCount();
  while (!Thread::WaitAll(threads, kOrphanCheckMs)) {
    if (cancelsOrphans_) CancelOrphans();
    // The jobs' objects close with the process, which ends the tools that are still running.
    if (GetTickCount() - start >= kThreadsEndMs) ExitProcess(1);
  }
}

// The message thread learns of lost clients, but it may be the thread that is in Stop. So Stop checks the clients'
// channels itself.
void LocalJobQueue::CancelOrphans() {
  runningTools_.CancelWhere([this](const BuildJob& job) { return !dispatcher_.FindChannel(job.clientAddress); });
}

void LocalJobQueue::LocalBuildLoop() {
  const i32 thread = threadCount_++;
  for (;;) {
    rc_ptr<BuildJob> job;
    if (!jobs_.Pop(job, kNoLimit) || !job) return;
    HandleJob(*job, thread);
  }
}

void LocalJobQueue::HandleJob(BuildJob& job, i32 thread) {
  LogJob(job, "processing job");
  // Only a scheduled job is pushed; this one was pushed twice, and has its answer.
  if (job.state == JOB_FINISHED) return LogJob(job, "job already in finished state");
  job.isCancelled ? SkipJob(job) : RunJob(job, thread);
}

void LocalJobQueue::RunJob(BuildJob& job, i32 thread) {
  // Sent before the tool starts, and so before its output. The text is released at once: records are kept for good.
  if (!job.echoText.empty()) {
    SendBuildOutput(dispatcher_.FindChannel(job.clientAddress), job.echoText, "");
    job.echoText = std::string();
  }
  rc_ptr<Process> process = new Process("");
  process->SetWorkingDirectory(job.workingDirectory);
  const rc_ptr<JobOutput> output = new JobOutput(budget_, job, dispatcher_, keepsOutput_);
  LogJob(job, "starting process for job");
  EventTimer timer("event timer");
  timer.Start();
  const ToolEnd end = RunTool(job, process, output, thread);
  timer.Stop();
  const u64 outputBytes = output->CountBytes();
  LogJob(job, "process for job complete", {LogField("exit_code", static_cast<u32>(end.exitCode))});
  rc_ptr<Message> result;
  try {
    if (end.isOverdue) AddOverdueLine(output->GetStderr(), job.timeoutSeconds);
    result = ResultMessage(localAddress_, job, timer, end.exitCode, output->TakeStdout(), output->TakeStderr());
  } catch (const std::exception& e) {
    // The output exceeds a segment's limit or the memory: the job fails, and its stub is told why.
    result = ResultMessage(localAddress_, job, timer, -1, TextStream(""), TextStream(std::string(e.what()) + "\r\n"));
  }
  TellJournal(job, *process, end, outputBytes, *result);
  Answer(result);
  LogJob(job, "Posting job result back to main thread", {{"local_addr", localAddress_.ToString()}});
}

void LocalJobQueue::TellJournal(const BuildJob& job, Process& process, const ToolEnd& end, u64 outputBytes,
                                const Message& result) {
  if (journal_ == nullptr) return;
  JobJournal::End told;
  told.endedUs = end.endedUs;
  told.outcome = job.isCancelled     ? JobOutcome::kCancelled
                 : end.isOverdue     ? JobOutcome::kOverdue
                 : end.exitCode != 0 ? JobOutcome::kFailed
                                     : JobOutcome::kOk;
  told.hasExitCode = !job.isCancelled;
  told.exitCode = end.exitCode;
  if (journal_->IsObserved()) {
    // Terminate has closed the handles of a tool that ran too long, so that its times can't be read: they are 0.
    if (const u64 ticks = process.GetCpuTime()) told.cpuUs = static_cast<std::int64_t>(ticks / kTicksInMicrosecond);
    if (const u64 peak = process.GetPeakMemory()) told.peakMemoryBytes = static_cast<std::int64_t>(peak);
    told.outputBytes = static_cast<std::int64_t>(outputBytes);
    if (IsFailure(told.outcome)) told.outputHead = HeadOf(result);
  }
  journal_->Finish(job.number, std::move(told));
}

void LocalJobQueue::SkipJob(BuildJob& job) {
  job.echoText = std::string();
  LogJob(job, "job was cancelled before its start");
  if (journal_ != nullptr) journal_->Finish(job.number, {JobOutcome::kCancelled});
  EventTimer timer("event timer");
  timer.Start();
  timer.Stop();
  Answer(ResultMessage(localAddress_, job, timer, -1, TextStream(""), TextStream("")));
}

void LocalJobQueue::Answer(const rc_ptr<Message>& result) {
  if (!takeResult_ || !takeResult_(result)) dispatcher_.Post(result, false);
}

LocalJobQueue::ToolEnd LocalJobQueue::RunTool(BuildJob& job, const rc_ptr<Process>& process,
                                              const rc_ptr<JobOutput>& output, i32 thread) {
  HeldJobSlot slot(slots_, job.clientProcess);
  if (!slot.IsGranted()) return {-1, false, SteadyMicroseconds()};
  const std::shared_ptr<const Environment> environment = slots_ != nullptr ? MakeToolEnvironment(job) : nullptr;
  const std::int64_t startedUs = SteadyMicroseconds();
  // The command line alone does not name such a file.
  if (job.toolPath.ToString().find('"') != std::string::npos) process->SetApplicationPath(job.toolPath);
  if (!process->Start(job.commandLine, slots_ != nullptr ? kToolFlags : kJobFlags, environment.get(), 0))
    return {-1, false, SteadyMicroseconds()};
  // From here on clients that the tool starts find it as their ancestor.
  slot.SetProcess(process->GetProcessId());
  if (journal_ != nullptr) {
    journal_->Start(job.number, slots_ != nullptr ? slot.GetNumber() : thread, process->GetProcessId(), startedUs);
  }
  // Cancelled between its turn and its start. The tool is ended here, and its result collected as usual.
  if (!runningTools_.Add(job, process)) process->Kill();
  const u32 limitMs = WaitLimitMs(job);
  u32 code = static_cast<u32>(-1);
  output->Start(limitMs);
  const bool isOverdue =
      !process->Collect(&output->GetStdout(), &output->GetStderr(), limitMs, &code, output) && limitMs != kNoLimit;
  if (isOverdue) process->Terminate();
  const std::int64_t endedUs = SteadyMicroseconds();
  runningTools_.Remove(job.id);
  return {isOverdue ? kOverdueCode : static_cast<int>(code), isOverdue, endedUs};
}

// A limit of 49 days or more does not fit into milliseconds and counts as no limit.
u32 LocalJobQueue::WaitLimitMs(const BuildJob& job) const {
  const u64 limitMs = u64{job.timeoutSeconds} * 1000;
  return enforcesTimeout_ && limitMs != 0 && limitMs < kNoLimit ? static_cast<u32>(limitMs) : kNoLimit;
}

}  // namespace kestrun
