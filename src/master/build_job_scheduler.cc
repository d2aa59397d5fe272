#include "master/build_job_scheduler.h"

#include <algorithm>
#include <utility>

#include "master/local_time.h"
#include "master/master_log.h"
#include "protocol/protocol.h"
#include "stubs/console.h"
#include "transport/local_host.h"

namespace kestrun {

namespace {

constexpr u32 kThreadsEndMs = 30000;
constexpr u32 kStopLookMs = 500;

rc_ptr<Message> OutputMessage(const std::string& stdoutText, const std::string& stderrText) {
  rc_ptr<Message> message = new Message(MSG_BUILD_RESULT, kMasterService, kStubService);
  message->AddString(SEG_STDOUT, stdoutText).AddString(SEG_STDERR, stderrText);
  return message;
}

// Most jobs say nothing, and a record of that is kept for each.
rc_ptr<Message::Segment> OutputOf(const rc_ptr<Message::Segment>& text) {
  return text && text->GetDataLength() > 0 ? text : nullptr;
}

// Sends what stands for the end of a job, behind its output.
bool SendEnd(MessageChannel& channel, const rc_ptr<Message>& message, i32 exitCode, bool keepGoing) {
  message->AddI32(SEG_EXIT_CODE, exitCode);
  if (keepGoing) message->AddU32(SEG_KEEP_GOING, 1);
  return channel.Send(message);
}

}  // namespace

BuildJobScheduler::BuildJobScheduler(u32 maxConcurrentJobs, IniFile* settings, MessageDispatcher* dispatcher)
    : localServer_(new Server(GetLocalHostName())),
      dispatcher_(dispatcher),
      cancelsOrphans_(settings->GetBool("Extensions/CancelOrphanedJobs", false)),
      enforcesTimeout_(settings->GetBool("Extensions/EnforceJobTimeout", false)),
      discardsOutput_(settings->GetBool("Extensions/DiscardOutput", false)) {
  const u32 count = std::max(maxConcurrentJobs, u32{1});
  for (u32 i = 0; i < count; ++i) {
    rc_ptr<Thread> thread = new Thread("Local build thread");
    if (thread->Start(MakeDelegate(&BuildJobScheduler::LocalBuildLoop, this))) localThreads_.push_back(thread);
  }
}

BuildJobScheduler::~BuildJobScheduler() {
  if (!stopped_) Stop();
}

void BuildJobScheduler::AddJob(const rc_ptr<BuildJob>& job) {
  rc_ptr<Project>& project = projects_[job->projectName];
  if (!project) {
    project = new Project(job->projectName, 0, 0);
    WriteMasterLog(Log::Info, "New Project (from job)", {{"project", job->projectName}});
  }
  project->AddJob(job);
  ++jobsReceived_;
  pendingJobs_[job->id] = job;
  if (!cancelsOrphans_) return;
  jobsOfClients_[job->clientAddress][job->id] = job;
  // A client may be gone by the time that its request has been read; nobody tells so a second time.
  if (!dispatcher_->FindChannel(job->clientAddress)) ClientGone(job->clientAddress);
}

void BuildJobScheduler::ClientGone(const Address& client) {
  const auto found = jobsOfClients_.find(client);
  if (found == jobsOfClients_.end()) return;
  for (const auto& [id, job] : found->second) runningTools_.Cancel(*job);
  WriteMasterLog(Log::Info, "Jobs of a lost stub cancelled", {LogField("jobs", found->second.size())});
  jobsOfClients_.erase(found);
}

void BuildJobScheduler::ScheduleIfPending() {
  if (!pendingJobs_.empty()) Schedule();
}

void BuildJobScheduler::Schedule() {
  for (const auto& [id, job] : pendingJobs_) {
    job->state = JOB_SCHEDULED;
    localServer_->assignedJobs[id] = job;
    localQueue_.Push(job);
    WriteMasterLog(Log::Info, "Scheduled build-job");
    ++job->project->dispatchedJobs;
    activeJobs_[id] = job;
  }
  pendingJobs_.clear();
}

void BuildJobScheduler::NewProject(const std::string& name, u32 totalJobs, u32 flags, const Address& from) {
  rc_ptr<Project>& project = projects_[name];
  // Jobs point at their project, and none of them ever goes.
  if (project && project->receivedJobs > 0) replacedProjects_.push_back(project);
  project = new Project(name, flags, totalJobs);
  WriteMasterLog(Log::Info, "New Project (from script-stub)", {{"name", name}, LogField("size", totalJobs)});
  project->stubChannel = dispatcher_->FindChannel(from);
}

rc_ptr<BuildJob> BuildJobScheduler::JobResult(const rc_ptr<Server>& server, u32 id, i32 exitCode,
                                              const rc_ptr<Message::Segment>& stdoutText,
                                              const rc_ptr<Message::Segment>& stderrText, u64 /*startTime*/,
                                              i32 elapsedMs, bool* finished) {
  if (!server) {
    WriteMasterLog(Log::Error, "No server specified for  build result", {LogField("client_key", id)});
    return nullptr;
  }
  server->assignedJobs.erase(id);
  const auto found = activeJobs_.find(id);
  if (found == activeJobs_.end()) {
    if (!finishedJobs_.contains(id)) {
      WriteMasterLog(Log::Error, "Could not find record for remote build-result", {LogField("client_key", id)});
    }
    return nullptr;
  }
  rc_ptr<BuildJob> job = found->second;
  activeJobs_.erase(found);
  ForgetClientOf(*job);
  job->exitCode = exitCode;
  job->stdoutText = OutputOf(stdoutText);
  job->stderrText = OutputOf(stderrText);
  LogOutcome(*job, elapsedMs);
  if (finished != nullptr) *finished = true;
  ++server->completedCount;
  return job;
}

void BuildJobScheduler::ForgetClientOf(const BuildJob& job) {
  const auto client = jobsOfClients_.find(job.clientAddress);
  if (client == jobsOfClients_.end()) return;
  client->second.erase(job.id);
  if (client->second.empty()) jobsOfClients_.erase(client);
}

void BuildJobScheduler::LogOutcome(const BuildJob& job, i32 elapsedMs) {
  if (!IsMasterLogOpen()) return;
  const u64 end = LocalTimeMs();
  const u64 start = end - static_cast<u64>(std::max(elapsedMs, 0));
  const char* const outcome = job.exitCode == 0 ? "(OK)" : job.isCancelled ? "(CANCELLED)" : "(FAIL)";
  WriteMasterLog(Log::Info, std::string("Build Job completed ") + outcome,
                 {{"project", job.project != nullptr ? job.project->name : job.projectName},
                  LogField("client_key", job.id),
                  LogField("result", static_cast<u32>(job.exitCode)),
                  {"start_time", Log::FormatTime(start)},
                  {"end_time", Log::FormatTime(end)}});
}

void BuildJobScheduler::JobCompleted(const rc_ptr<BuildJob>& job) {
  job->state = JOB_FINISHED;
  if (discardsOutput_) {
    job->stdoutText.Reset();
    job->stderrText.Reset();
    job->environment.reset();
  } else {
    finishedJobs_[job->id] = job;
  }
  if (job->project == nullptr) {
    StopForUnknownProject(*job);
    return;
  }
  Project& project = *job->project;
  if (discardsOutput_) {
    project.ForgetJob(*job);
  } else {
    project.CompleteJob(job);
  }
  if (IsMasterLogOpen()) {
    WriteMasterLog(Log::Info, "Job completed in project",
                   {{"project", project.name},
                    LogField("total_jobs", project.totalJobs),
                    LogField("jobs_received", project.receivedJobs),
                    LogField("jobs_pending", project.pending.size()),
                    LogField("jobs_completed", project.CompletedCount())});
  }
  if (project.IsFinished()) ProjectFinished(project);
}

void BuildJobScheduler::StopForUnknownProject(const BuildJob& job) {
  PrintError("unknown project [" + job.projectName + "] in build-job " + std::to_string(job.id));
  WriteMasterLog(Log::Error, "Unknown Project in build result",
                 {{"project", job.projectName}, LogField("client_key", job.id)});
  rc_ptr<Message> stop = new Message(MSG_STOP, kMasterService, kMasterService);
  stop->AddString(SEG_STOP_REASON, "Job is part of unknown project: " + job.projectName);
  dispatcher_->Post(stop, false);
}

void BuildJobScheduler::ProjectFinished(Project& project) {
  WriteMasterLog(Log::Info, "Project Finished - releasing stub", {{"project", project.name}});
  if (project.stubChannel) project.stubChannel->Send(new Message(MSG_PROJECT_COMPLETE, kMasterService, kStubService));
  project.stubChannel.Reset();
}

bool BuildJobScheduler::SendResult(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                                   const std::string& stderrText, i32 exitCode, bool keepGoing) {
  return channel && SendEnd(*channel, OutputMessage(stdoutText, stderrText), exitCode, keepGoing);
}

bool BuildJobScheduler::PassResultOn(const rc_ptr<MessageChannel>& channel, const Message& localResult, i32 exitCode,
                                     bool keepGoing) {
  if (!channel) return false;
  const rc_ptr<Message> message = new Message(MSG_BUILD_RESULT, kMasterService, kStubService);
  for (const u32 type : {SEG_STDOUT, SEG_STDERR}) {
    const rc_ptr<Message::Segment> output = localResult.FindSegment(type);
    message->AddSegment(output ? output.Get() : Message::Segment::FromString(type, "").Get());
  }
  return SendEnd(*channel, message, exitCode, keepGoing);
}

bool BuildJobScheduler::SendOutput(const rc_ptr<MessageChannel>& channel, const std::string& stdoutText,
                                   const std::string& stderrText) {
  return channel && channel->Send(OutputMessage(stdoutText, stderrText));
}

void BuildJobScheduler::Stop() {
  stopped_ = true;
  for (std::size_t i = 0; i < localThreads_.size(); ++i) localQueue_.PushFront(nullptr);
  for (const rc_ptr<Thread>& thread : localThreads_) thread->SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  const u32 start = GetTickCount();
  while (!Thread::WaitAll(localThreads_, kStopLookMs)) {
    // Nobody hears of lost clients any more: the thread that would be told may be this one.
    if (cancelsOrphans_) {
      runningTools_.CancelWhere([this](const BuildJob& job) { return !dispatcher_->FindChannel(job.clientAddress); });
    }
    // The jobs' objects close with the process, which ends the tools that are still running.
    if (GetTickCount() - start >= kThreadsEndMs) ExitProcess(1);
  }
}

}  // namespace kestrun
