// Where jobs run: the body of the scheduler's local build threads.
#include <exception>
#include <string>

#include "master/build_job_scheduler.h"
#include "master/master_log.h"
#include "protocol/protocol.h"
#include "runtime/event_timer.h"
#include "runtime/memory_stream.h"
#include "runtime/process.h"
#include "transport/local_host.h"
#include "transport/socket_address.h"

namespace kestrun {

namespace {

constexpr int kOverdueCode = 124;
constexpr u32 kJobFlags = Process::PRIORITY_BELOW_NORMAL | Process::PIPE_STDIN | Process::PIPE_STDOUT |
                          Process::PIPE_STDERR | Process::OWN_JOB;

void LogJob(const BuildJob& job, const char* message, const Log::Fields& more = {}) {
  if (!IsMasterLogOpen()) return;
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

}  // namespace

void BuildJobScheduler::LocalBuildLoop() {
  const Address localAddress(SocketAddress(GetLocalHostName(), 0), Address::kTcp, false);
  for (;;) {
    rc_ptr<BuildJob> job;
    if (!localQueue_.Pop(job, kNoLimit) || !job) return;
    LogJob(*job, "processing job");
    if (job->state == JOB_FINISHED) {
      LogJob(*job, "job already in finished state");
      continue;
    }
    if (job->isCancelled) {
      SkipJob(*job, localAddress);
    } else {
      RunJob(*job, localAddress);
    }
  }
}

void BuildJobScheduler::RunJob(BuildJob& job, const Address& localAddress) {
  if (!job.echoText.empty()) {
    SendOutput(dispatcher_->FindChannel(job.clientAddress), job.echoText, "");
    job.echoText = std::string();
  }
  rc_ptr<Process> process = new Process("");
  process->SetWorkingDirectory(job.workingDirectory);
  rc_ptr<MemoryStream> out = new MemoryStream;
  rc_ptr<MemoryStream> err = new MemoryStream;
  LogJob(job, "starting process for job");
  EventTimer timer("event timer");
  timer.Start();
  const ToolEnd end = RunTool(job, process, out.Get(), err.Get());
  timer.Stop();
  LogJob(job, "process for job complete", {LogField("exit_code", static_cast<u32>(end.exitCode))});
  rc_ptr<Message> result;
  try {
    if (end.isOverdue) AddOverdueLine(*err, job.timeoutSeconds);
    result = ResultMessage(localAddress, job, timer, end.exitCode, out, err);
  } catch (const std::exception& e) {
    // More output than a segment or the memory can hold: the job fails, and the stub is told why.
    result = ResultMessage(localAddress, job, timer, -1, TextStream(""), TextStream(std::string(e.what()) + "\r\n"));
  }
  dispatcher_->Post(result, false);
  LogJob(job, "Posting job result back to main thread", {{"local_addr", localAddress.ToString()}});
}

void BuildJobScheduler::SkipJob(BuildJob& job, const Address& localAddress) {
  job.echoText = std::string();
  LogJob(job, "job was cancelled before its start");
  EventTimer timer("event timer");
  timer.Start();
  timer.Stop();
  dispatcher_->Post(ResultMessage(localAddress, job, timer, -1, TextStream(""), TextStream("")), false);
}

BuildJobScheduler::ToolEnd BuildJobScheduler::RunTool(BuildJob& job, const rc_ptr<Process>& process, MemoryStream* out,
                                                      MemoryStream* err) {
  if (!process->Start(job.commandLine, kJobFlags, nullptr, 0)) return {-1, false};
  if (!runningTools_.Add(job, process)) process->Kill();
  const u32 limitMs = WaitLimitMs(job);
  u32 code = static_cast<u32>(-1);
  const bool isOverdue = !process->Collect(out, err, limitMs, &code) && limitMs != kNoLimit;
  if (isOverdue) process->Terminate();
  runningTools_.Remove(job.id);
  return {isOverdue ? kOverdueCode : static_cast<int>(code), isOverdue};
}

// A limit that milliseconds can't hold, from 49 days on, is none.
u32 BuildJobScheduler::WaitLimitMs(const BuildJob& job) const {
  const u64 limitMs = u64{job.timeoutSeconds} * 1000;
  return enforcesTimeout_ && limitMs != 0 && limitMs < kNoLimit ? static_cast<u32>(limitMs) : kNoLimit;
}

}  // namespace kestrun
