#include "platform/linux/process/child_process.h"

#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "platform/api/process_api.h"
#include "platform/host.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/base/process_stat.h"
#include "platform/linux/helper/job_groups.h"

namespace kestrun::platform {
namespace {

// The children to which some handle, job or thread still refers, by process id.
struct ChildRegistry {
  std::mutex mutex;
  std::map<pid_t, std::weak_ptr<ChildProcess>> children;  // guarded by mutex
};

ChildRegistry& Registry() {
  static NeverDestroyed<ChildRegistry> registry;
  return registry.get();
}

// A failed fork (EAGAIN) and helpers that were killed (EPIPE, ECONNRESET) are both a shortage to the caller.
DWORD ErrorOfStart(int error) {
  const DWORD win32Error = Win32ErrorFromErrno(error);
  return error == EAGAIN || error == ENOMEM || error == EPIPE || error == ECONNRESET ? ERROR_NOT_ENOUGH_MEMORY
                                                                                     : win32Error;
}

}  // namespace

std::shared_ptr<ChildProcess> ChildProcess::Start(ChildRequest request, DWORD& error) {
  SupervisorLink supervisor;
  Report ready = {};
  if (const int code = SupervisorPool::Get().Acquire(request.session, supervisor, ready); code != 0) {
    error = ErrorOfStart(code);
    return nullptr;
  }
  // The child is in the registry before its first report can be served, so that Find never misses one that exists.
  auto child = std::make_shared<ChildProcess>(std::move(request), ready, std::move(supervisor));
  {
    const std::lock_guard lock(Registry().mutex);
    Registry().children[child->pid()] = child;
  }
  if (!WatchDescriptor(child->controlDescriptor_, child)) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  return child;
}

std::shared_ptr<ChildProcess> ChildProcess::Find(pid_t pid) {
  const std::lock_guard lock(Registry().mutex);
  const auto found = Registry().children.find(pid);
  return found != Registry().children.end() ? found->second.lock() : nullptr;
}

ChildProcess::ChildProcess(ChildRequest request, const Report& ready, SupervisorLink supervisor)
    : ProcessObject(ready.tool),
      supervisorPid_(ready.supervisor),
      before_{ready.all.userUs, ready.all.kernelUs},
      mayBeInterrupted_(request.mayBeInterrupted),
      exitNotice_(std::make_shared<ExitNotice>()),
      controlDescriptor_(supervisor.control.get()),
      exitCode_(STILL_ACTIVE),
      supervisor_(std::move(supervisor)),
      request_(std::move(request)) {}

ChildProcess::~ChildProcess() {
  const std::lock_guard lock(Registry().mutex);
  const auto found = Registry().children.find(pid());
  // The kernel may have given the id to another child meanwhile, whose entry must stay.
  if (found != Registry().children.end() && found->second.expired()) Registry().children.erase(found);
}

// Called with mutex_ held. False if the control socket has been given up, or its other end has gone.
bool ChildProcess::SendCommand(CommandKind kind, DWORD value) {
  Command command = {};
  command.kind = kind;
  command.value = value;
  return supervisor_.control && SendAll(supervisor_.control.get(), &command, sizeof command);
}

bool ChildProcess::LetRun() {
  ChildRequest done;
  const std::lock_guard lock(mutex_);
  if (WasLetRun()) return false;
  if (phase_ == Phase::kLost) {
    phase_ = Phase::kEnded;
    return true;
  }
  phase_ = Phase::kRunning;
  SendStart(supervisor_.control.get(), request_, killsOnClose_);
  // This process keeps its own copies of the output pipes' write ends until the child has ended. A reader stops when it
  // learns of the child's end; with the copies closed, the end of the pipe would wake it once more before that, for
  // nothing.
  done = std::move(request_);
  for (int i = 1; i < 3; ++i) request_.streams[i] = std::move(done.streams[i]);
  return true;
}

// Ends a child that was not let run. False if it was. The phase changes before the socket is shut down: otherwise the
// thread that serves the reports would take the end of the socket for the end of a killed supervisor.
bool ChildProcess::EndUnstarted(DWORD exitCode) {
  bool isFirst = false;
  ChildRequest done;
  {
    const std::lock_guard lock(mutex_);
    if (WasLetRun()) return false;
    isFirst = SetExitCode(exitCode);
    phase_ = Phase::kEnded;
    if (supervisor_.control) shutdown(supervisor_.control.get(), SHUT_RDWR);
    done = std::move(request_);
  }
  if (isFirst) TellEnd();
  return true;
}

bool ChildProcess::EnterJob(bool killsOnClose) {
  const std::lock_guard lock(mutex_);
  if (WasLetRun() || isInJob_) return false;
  isInJob_ = true;
  killsOnClose_ = killsOnClose;
  return true;
}

bool ChildProcess::IsInJob() const {
  const std::lock_guard lock(mutex_);
  return isInJob_;
}

void ChildProcess::SetKillOnClose(bool killsOnClose) {
  const std::lock_guard lock(mutex_);
  killsOnClose_ = killsOnClose;
  if (WasLetRun()) SendCommand(CommandKind::kKillOnClose, killsOnClose);
}

// The socket stays open for reading, because threads that wait for the tool still need the report of its end. Without
// kill-on-close only this direction is shut down: the supervisor takes that for the end of its owner, serves this tool
// until everything below it has ended, and exits.
void ChildProcess::CloseJob() {
  if (EndUnstarted(128 + SIGKILL)) return;
  const std::lock_guard lock(mutex_);
  if (!supervisor_.control) return;
  if (killsOnClose_) {
    SendCommand(CommandKind::kCloseJob, 0);
  } else {
    shutdown(supervisor_.control.get(), SHUT_WR);
  }
}

bool ChildProcess::KillAll(DWORD exitCode) {
  if (EndUnstarted(exitCode)) return true;
  const std::lock_guard lock(mutex_);
  return SendCommand(CommandKind::kKillAll, exitCode);
}

bool ChildProcess::SignalGroup(int signal) {
  if (!mayBeInterrupted_ || IsSignalled()) return false;
  const std::lock_guard lock(mutex_);
  return SendCommand(CommandKind::kSignalGroup, static_cast<DWORD>(signal));
}

// Acquire pairs with the release in SetExitCode: a thread that sees the exit code also sees what was written before it.
DWORD ChildProcess::ExitCode() const {
  return exitCode_.load(std::memory_order_acquire);
}

bool ChildProcess::Terminate(DWORD exitCode) {
  if (EndUnstarted(exitCode)) return true;
  const std::lock_guard lock(mutex_);
  if (!IsSignalled() && SendCommand(CommandKind::kKillTool, exitCode)) return true;
  SetLastError(ERROR_ACCESS_DENIED);
  return false;
}

bool ChildProcess::Times(ProcessTimes& times) const {
  if (ProcessObject::Times(times)) return true;
  const std::lock_guard lock(mutex_);
  times = ownTimes_;
  return true;
}

bool ChildProcess::OnReadable() {
  Report report = {};
  ssize_t count = 0;
  do {
    count = recv(controlDescriptor_, &report, sizeof report, MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) return true;
  const bool isReport = count == sizeof report;
  bool isFirst = false;
  bool goesOn = false;
  ChildRequest done;
  {
    const std::lock_guard lock(mutex_);
    // The end of the socket without a report means that the supervisor was killed. The zygote then kills what was below
    // the supervisor, if the zygote itself lives.
    isFirst = SetExitCode(isReport ? report.exitCode : 128 + SIGKILL);
    if (isFirst) done = std::move(request_);
    if (isReport) {
      EnterPhaseOf(report);
    } else if (isFirst) {
      phase_ = phase_ == Phase::kHeldBack ? Phase::kLost : Phase::kEnded;
    }
    // The child is served on for its job, which may count or end the processes that the tool has left behind.
    goesOn = isReport && isInJob_ && phase_ != Phase::kIdle;
  }
  // If the zygote was killed as well, this process is the only one left that can end the supervisor's group.
  if (!isReport) JobGroups::OfThisProcess().End(supervisorPid_);
  if (isFirst) TellEnd();
  return goesOn;
}

// Called with mutex_ held. Takes over what the report says, and enters kEnded or kIdle.
void ChildProcess::EnterPhaseOf(const Report& report) {
  const bool isIdle = report.kind == ReportKind::kEmpty || report.isEmpty != 0;
  if (report.kind == ReportKind::kEnded) {
    ownTimes_ = {report.own.userUs, report.own.kernelUs};
    peakBytes_ = report.peakBytes;
  }
  if (isIdle) treeTimes_ = {report.all.userUs, report.all.kernelUs};
  phase_ = isIdle ? Phase::kIdle : Phase::kEnded;
}

// An idle supervisor goes back to the pool. In every other phase the socket is closed, which the supervisor takes for
// the end of its owner.
void ChildProcess::OnLetGo() {
  const std::lock_guard lock(mutex_);
  if (phase_ == Phase::kIdle) {
    SupervisorPool::Get().Release({std::move(supervisor_.control), supervisor_.zygote, supervisor_.session});
  }
  supervisor_.control.Reset();
}

// After UnwatchDescriptor the reaper makes no further call for this child, not even OnLetGo; so the taker calls it, in
// ServeReport or GiveBack.
int ChildProcess::TakeOver() {
  return UnwatchDescriptor(controlDescriptor_, this) ? controlDescriptor_ : -1;
}

bool ChildProcess::ServeReport() {
  if (OnReadable()) return true;
  OnLetGo();
  return false;
}

void ChildProcess::GiveBack() {
  // If the reaper can't watch the child again, its socket is closed, and the supervisor does as if this process had
  // died.
  if (!WatchDescriptor(controlDescriptor_, shared_from_this())) OnLetGo();
}

ProcessTimes ChildProcess::TreeTimes(DWORD& active) const {
  active = 0;
  {
    const std::lock_guard lock(mutex_);
    if (!supervisor_.control) return isInJob_ ? treeTimes_ : ownTimes_;
  }
  ProcessTimes total;
  // While the tree lives, its times are read from /proc: of each process its own, and of the ended ones what their
  // parents have collected. The supervisor's own time is not the tool's, and neither are its earlier tools (before_).
  for (const auto& [pid, stat] : DescendantsOf(supervisorPid_)) {
    const bool isSupervisor = pid == supervisorPid_;
    if (!isSupervisor && stat.state != 'Z') ++active;
    total.userUs += TicksToMicroseconds((isSupervisor ? 0 : stat.userTicks) + stat.childUserTicks);
    total.kernelUs += TicksToMicroseconds((isSupervisor ? 0 : stat.kernelTicks) + stat.childKernelTicks);
  }
  total.userUs -= std::min(total.userUs, before_.userUs);
  total.kernelUs -= std::min(total.kernelUs, before_.kernelUs);
  return total;
}

// Called with mutex_ held, before the phase changes. False if the child has ended before. Release pairs with the
// acquire in ExitCode.
bool ChildProcess::SetExitCode(DWORD exitCode) {
  if (phase_ != Phase::kHeldBack && phase_ != Phase::kRunning) return false;
  exitCode_.store(exitCode, std::memory_order_release);
  return true;
}

// Called without the mutex, because the threads that it wakes may call this child at once.
void ChildProcess::TellEnd() {
  exitNotice_->Set();
  Signal();
}

// The kernel adds a child's times to its parent's when the parent waits for it: the supervisor waited for the tool, the
// zygote waits for the supervisor, and this process for the zygote.
void TakeOverChildTimes(DWORD limitMs) {
  SupervisorPool::Get().CloseIdle(SessionKind::kShared);
  EndZygote(SessionKind::kShared, static_cast<int>(limitMs));
}

}  // namespace kestrun::platform
