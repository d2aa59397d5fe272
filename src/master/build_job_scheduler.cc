#include "master/build_job_scheduler.h"

#include <algorithm>
#include <utility>

#include "app/console.h"
#include "master/local_time.h"
#include "master/master_log.h"
#include "protocol/protocol.h"
#include "transport/sockets/local_host.h"

namespace kestrun {

namespace {

// Null for no output: most jobs write nothing, and a finished job keeps its output.
rc_ptr<Message::Segment> OutputOf(const rc_ptr<Message::Segment>& text) {
  return text && text->GetDataLength() > 0 ? text : nullptr;
}

}  // namespace

BuildJobScheduler::BuildJobScheduler(u32 maxConcurrentJobs, IniFile* settings, MessageDispatcher* dispatcher,
                                     JobSlots* slots, JobJournal* journal)
    : localServer_(new Server(GetLocalHostName())),
      dispatcher_(dispatcher),
      journal_(journal),
      namesJobsInLog_(slots != nullptr),
      cancelsOrphans_(settings->GetBool("Extensions/CancelOrphanedJobs", false)),
      discardsOutput_(settings->GetBool("Extensions/DiscardOutput", false)),
      localQueue_(maxConcurrentJobs, *settings, *dispatcher, slots, LocalJobQueue::kOutputLimit, journal) {}

// A client's own announcement comes first: another client that announces the same name must not get its jobs.
rc_ptr<Project> BuildJobScheduler::FindProject(const BuildJob& job) {
  if (const auto client = announcements_.find(job.clientAddress); client != announcements_.end()) {
    const auto own = client->second.byName.find(job.projectName);
    if (own != client->second.byName.end() && own->second->receivedJobs < own->second->totalJobs) return own->second;
  }
  rc_ptr<Project>& project = projects_[job.projectName];
  if (!project) {
    project = new Project(job.projectName, 0, 0);
    WriteMasterLog(Log::Info, "New Project (from job)", {{"project", job.projectName}});
  }
  return project;
}

void BuildJobScheduler::JoinProject(const rc_ptr<BuildJob>& job) {
  const rc_ptr<Project> project = FindProject(*job);
  project->AddJob(job);
  // Only the first job of a project changes what follows: the record is kept for good, and is no longer one of those
  // that NewProject may forget.
  if (project->receivedJobs > 1) return;
  usedProjects_.push_back(project);
  if (const auto client = announcements_.find(job->clientAddress); client != announcements_.end()) {
    std::erase(client->second.unused, project->name);
  }
}

void BuildJobScheduler::AddJob(const rc_ptr<BuildJob>& job) {
  JoinProject(job);
  if (journal_ != nullptr) {
    job->number = journal_->Add(job.Get(), job->clientProcess);
    journal_->FindParent(job->number);
  }
  pendingJobs_[job->id] = job;
  if (!cancelsOrphans_) return;
  jobsOfClients_[job->clientAddress][job->id] = job;
  // The client's channel may have ended before its request was read; ClientGone is not called again for it.
  if (!dispatcher_->FindChannel(job->clientAddress)) ClientGone(job->clientAddress);
}

void BuildJobScheduler::ForgetUnused(Announcements& from, const std::string& name) {
  const auto announced = from.byName.find(name);
  if (announced == from.byName.end() || announced->second->receivedJobs > 0) return;
  // Another client may have announced the same name since; the record under that name is then the other client's.
  const auto latest = projects_.find(name);
  if (latest != projects_.end() && latest->second == announced->second) projects_.erase(latest);
  from.byName.erase(announced);
}

void BuildJobScheduler::ForgetAnnouncements(const Address& client) {
  const auto gone = announcements_.find(client);
  if (gone == announcements_.end()) return;
  for (const std::string& name : gone->second.unused) ForgetUnused(gone->second, name);
  announcements_.erase(gone);
}

void BuildJobScheduler::ClientGone(const Address& client) {
  ForgetAnnouncements(client);
  const auto found = jobsOfClients_.find(client);
  if (found == jobsOfClients_.end()) return;
  // The jobs stay in their maps, pending ones too: the queue answers each of them with a result, and that removes it.
  for (const auto& [id, job] : found->second) localQueue_.Cancel(*job);
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
    // The job's result can't come before the job is in activeJobs_: messages are handled one at a time, and this call
    // belongs to one of them.
    localQueue_.Push(job);
    WriteMasterLog(Log::Info, "Scheduled build-job");
    ++job->project->dispatchedJobs;
    activeJobs_[id] = job;
  }
  pendingJobs_.clear();
}

void BuildJobScheduler::NewProject(const std::string& name, u32 totalJobs, u32 flags, const Address& from) {
  Announcements& own = announcements_[from];
  // A client that announces a name again replaces its own announcement.
  ForgetUnused(own, name);
  std::erase(own.unused, name);
  const rc_ptr<Project> project = new Project(name, flags, totalJobs);
  project->stubChannel = dispatcher_->FindChannel(from);
  WriteMasterLog(Log::Info, "New Project (from script-stub)", {{"name", name}, LogField("size", totalJobs)});
  projects_[name] = project;
  own.byName[name] = project;
  own.unused.push_back(name);
  if (own.unused.size() <= kMostUnusedProjects) return;
  ForgetUnused(own, own.unused.front());
  own.unused.pop_front();
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
    // A second result for a job that is kept is dropped without a record in the log.
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
  if (!IsLogOpen()) return;
  const u64 end = LocalTimeMs();
  const u64 start = end - static_cast<u64>(std::max(elapsedMs, 0));
  const char* const outcome = job.exitCode == 0 ? "(OK)" : job.isCancelled ? "(CANCELLED)" : "(FAIL)";
  Log::Fields fields{{"project", job.project != nullptr ? job.project->name : job.projectName},
                     LogField("client_key", job.id),
                     LogField("result", static_cast<u32>(job.exitCode)),
                     {"start_time", Log::FormatTime(start)},
                     {"end_time", Log::FormatTime(end)}};
  if (namesJobsInLog_) {
    fields.emplace_back("command", job.commandLine);
    if (!job.name.empty()) fields.emplace_back("name", job.name);
    fields.emplace_back("folder", job.workingDirectory.ToString());
  }
  WriteMasterLog(Log::Info, std::string("Build Job completed ") + outcome, fields);
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
  if (IsLogOpen()) {
    WriteMasterLog(Log::Info, "Job completed in project",
                   {{"project", project.name},
                    LogField("total_jobs", project.totalJobs),
                    LogField("jobs_received", project.receivedJobs),
                    LogField("jobs_pending", project.pending.size()),
                    LogField("jobs_completed", project.CompletedCount())});
  }
  if (project.IsFinished()) ProjectFinished(project);
}

// AddJob gives each job its project, so a job without one means that the records are wrong. The master stops rather
// than leave a script stub waiting for the end of a project that never comes.
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
  SendProjectComplete(project.stubChannel);
  // A later job of this name finishes the project again; the stub is told of the first end only.
  project.stubChannel.Reset();
}

}  // namespace kestrun
