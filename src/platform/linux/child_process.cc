#include "platform/linux/child_process.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "platform/linux/handle_table.h"
#include "platform/linux/never_destroyed.h"
#include "platform/linux/process_api.h"
#include "platform/linux/process_stat.h"
#include "platform/linux/zygote_client.h"

namespace kestrun::platform {
namespace {

// The children that have not ended, by process id.
struct ChildRegistry {
  std::mutex mutex;
  std::map<pid_t, std::weak_ptr<ChildProcess>> children;  // guarded by mutex
};

ChildRegistry& Registry() {
  static NeverDestroyed<ChildRegistry> registry;
  return registry.get();
}

// They end with this process.
class IdleSupervisors {
 public:
  IdleSupervisor Take(SessionKind session) {
    const std::lock_guard lock(mutex_);
    std::vector<IdleSupervisor>& idle = idle_[static_cast<std::size_t>(session)];
    if (idle.empty()) return {};
    IdleSupervisor taken = std::move(idle.back());
    idle.pop_back();
    return taken;
  }

  void Give(SessionKind session, IdleSupervisor supervisor) {
    const std::lock_guard lock(mutex_);
    std::vector<IdleSupervisor>& idle = idle_[static_cast<std::size_t>(session)];
    if (idle.size() < kMost) idle.push_back(std::move(supervisor));
  }

 private:
  // More tools than that hardly run at once for long.
  static constexpr std::size_t kMost = 32;

  std::mutex mutex_;
  std::vector<IdleSupervisor> idle_[2];  // guarded by mutex_; by session kind
};

IdleSupervisors& Idle() {
  static NeverDestroyed<IdleSupervisors> idle;
  return idle.get();
}

bool SendAll(int socket, const void* bytes, std::size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t count = send(socket, at, size, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

// What of a tool's start goes along as descriptors.
struct StartDescriptors {
  explicit StartDescriptors(const ChildRequest& request) {
    values[count++] = request.workingDirectory.get();
    for (unsigned i = 0; i < 3; ++i) {
      if (!request.streams[i]) continue;
      streams |= 1u << i;
      values[count++] = request.streams[i]->Descriptor();
    }
  }

  std::uint32_t streams = 0;
  int values[kMaxStartDescriptors];
  std::size_t count = 0;
};

// A kStart command with its text.
std::string MakeStart(const ChildRequest& request, bool killOnClose, std::uint32_t streams) {
  const rlimit limit = OriginalDescriptorLimit();
  Command command = {};
  command.kind = CommandKind::kStart;
  ToolHeader& tool = command.tool;
  tool.flags = (request.ownGroup ? kToolOwnGroup : 0u) | (killOnClose ? kToolKillOnClose : 0u);
  tool.streams = streams;
  tool.nice = request.nice;
  tool.descriptorLimit = limit.rlim_cur;
  tool.descriptorMaximum = limit.rlim_max;
  tool.argumentCount = static_cast<std::uint32_t>(request.arguments.size());
  tool.variableCount = static_cast<std::uint32_t>(request.variables.size());
  std::string text(sizeof command, '\0');
  const auto append = [&text](const std::string& entry) { text.append(entry.c_str(), entry.size() + 1); };
  append(request.path);
  for (const std::string& entry : request.arguments) append(entry);
  for (const std::string& entry : request.variables) append(entry);
  tool.textSize = text.size() - sizeof command;
  text.replace(0, sizeof command, reinterpret_cast<const char*>(&command), sizeof command);
  return text;
}

bool ReceiveReady(int control, Report& report) {
  ssize_t count = 0;
  do {
    count = recv(control, &report, sizeof report, MSG_WAITALL);
  } while (count < 0 && errno == EINTR);
  return count == sizeof report && report.kind == ReportKind::kReady;
}

// A supervisor that was killed, or lost the process that it had made for its next tool, has more to say or nothing at
// all.
bool IsWaiting(int control) {
  char byte = 0;
  return recv(control, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

// False if no idle supervisor is left; those that can't take a tool any more are dropped.
bool FindIdleSupervisor(SessionKind session, IdleSupervisor& supervisor, Report& report) {
  while ((supervisor = Idle().Take(session)).control) {
    const int control = supervisor.control.get();
    if (supervisor.zygote->IsAlive() && ReceiveReady(control, report) && report.error == 0 && IsWaiting(control)) {
      return true;
    }
  }
  return false;
}

// True with an answer; false when the helpers died over it, so that it can be tried again. The session of a zygote
// shares the processors with others as a whole, so its tools' priority is the session's too.
bool StartSupervisor(const ChildRequest& request, IdleSupervisor& supervisor, Report& report) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    report.error = errno;
    return true;
  }
  supervisor.control = FileDescriptor(ends[0]);
  FileDescriptor supervisorEnd(ends[1]);
  supervisor.zygote = AskForSupervisor(request.session, request.nice, supervisorEnd.get(), report.error);
  if (!supervisor.zygote) return true;
  supervisorEnd.Reset();
  return ReceiveReady(supervisor.control.get(), report);
}

DWORD ErrorOfStart(int error) {
  const DWORD win32Error = Win32ErrorFromErrno(error);
  return error == EAGAIN || error == ENOMEM || error == EPIPE || error == ECONNRESET ? ERROR_NOT_ENOUGH_MEMORY
                                                                                     : win32Error;
}

}  // namespace

void ExitNotice::Set() {
  set_.store(true, std::memory_order_seq_cst);
  const std::lock_guard lock(mutex_);
  if (event_) eventfd_write(event_.get(), 1);
}

int ExitNotice::Descriptor() {
  const std::lock_guard lock(mutex_);
  if (!event_) event_.Reset(eventfd(IsSet() ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
  return event_.get();
}

std::shared_ptr<ChildProcess> ChildProcess::Start(ChildRequest request, DWORD& error) {
  IdleSupervisor supervisor;
  Report ready = {};
  bool answered = FindIdleSupervisor(request.session, supervisor, ready);
  for (int attempt = 0; attempt < 3 && !answered; ++attempt) answered = StartSupervisor(request, supervisor, ready);
  if (!answered) ready.error = EAGAIN;
  if (ready.error != 0) {
    error = ErrorOfStart(ready.error);
    return nullptr;
  }
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

ChildProcess::ChildProcess(ChildRequest request, const Report& ready, IdleSupervisor supervisor)
    : ProcessObject(ready.tool),
      supervisor_(ready.supervisor),
      before_{ready.all.userUs, ready.all.kernelUs},
      session_(request.session),
      mayBeInterrupted_(request.mayBeInterrupted),
      exitNotice_(std::make_shared<ExitNotice>()),
      zygote_(std::move(supervisor.zygote)),
      controlDescriptor_(supervisor.control.get()),
      exitCode_(STILL_ACTIVE),
      control_(std::move(supervisor.control)),
      request_(std::move(request)) {}

ChildProcess::~ChildProcess() {
  const std::lock_guard lock(Registry().mutex);
  const auto found = Registry().children.find(pid());
  // The id may be another child's by now.
  if (found != Registry().children.end() && found->second.expired()) Registry().children.erase(found);
}

bool ChildProcess::SendCommand(CommandKind kind, DWORD value) {
  Command command = {};
  command.kind = kind;
  command.value = value;
  return control_ && SendAll(control_.get(), &command, sizeof command);
}

bool ChildProcess::LetRun() {
  ChildRequest done;
  const std::lock_guard lock(mutex_);
  if (resumed_) return false;
  resumed_ = true;
  if (control_) SendStart();
  // Our own write ends stay open until the end: nobody who reads is woken by the end of a pipe that the end of the
  // child is going to tell of anyway.
  done = std::move(request_);
  for (int i = 1; i < 3; ++i) request_.streams[i] = std::move(done.streams[i]);
  return true;
}

// A supervisor that is gone shows at the other end of the socket.
void ChildProcess::SendStart() {
  const StartDescriptors given(request_);
  const std::string start = MakeStart(request_, killOnClose_, given.streams);
  const ssize_t sent = SendDescriptors(control_.get(), start.data(), start.size(), given.values, given.count);
  if (sent <= 0) return;
  const std::size_t done = static_cast<std::size_t>(sent);
  SendAll(control_.get(), start.data() + done, start.size() - done);
}

// Ends what was held back and has never run. False if it runs. Its exit code stands before its supervisor is let go:
// whoever serves the reports takes the end of the socket for a supervisor that was killed.
bool ChildProcess::EndUnstarted(DWORD exitCode) {
  bool isFirst = false;
  ChildRequest done;
  {
    const std::lock_guard lock(mutex_);
    if (resumed_) return false;
    resumed_ = true;
    isFirst = SetExitCode(exitCode);
    if (control_) shutdown(control_.get(), SHUT_RDWR);
    done = std::move(request_);
  }
  if (isFirst) TellEnd();
  return true;
}

bool ChildProcess::EnterJob(bool killOnClose) {
  const std::lock_guard lock(mutex_);
  if (resumed_ || inJob_) return false;
  inJob_ = true;
  killOnClose_ = killOnClose;
  return true;
}

bool ChildProcess::IsInJob() const {
  const std::lock_guard lock(mutex_);
  return inJob_;
}

void ChildProcess::SetKillOnClose(bool killOnClose) {
  const std::lock_guard lock(mutex_);
  killOnClose_ = killOnClose;
  if (resumed_) SendCommand(CommandKind::kKillOnClose, killOnClose);
}

// Somebody still wants to hear of the tool's end, so that those who wait for it wake. A tool that may go on keeps its
// supervisor for itself.
void ChildProcess::CloseJob() {
  if (EndUnstarted(128 + SIGKILL)) return;
  const std::lock_guard lock(mutex_);
  if (!control_) return;
  if (killOnClose_) {
    SendCommand(CommandKind::kCloseJob, 0);
  } else {
    shutdown(control_.get(), SHUT_WR);
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

// More than the end is of interest while a job may still have something to say about what the tool has left behind.
bool ChildProcess::OnReadable() {
  Report report = {};
  ssize_t count = 0;
  do {
    count = recv(controlDescriptor_, &report, sizeof report, MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) return true;
  bool goesOn = false;
  if (count == sizeof report) {
    const std::lock_guard lock(mutex_);
    isIdle_ = report.kind == ReportKind::kEmpty || report.isEmpty != 0;
    if (report.kind == ReportKind::kEnded) ownTimes_ = {report.own.userUs, report.own.kernelUs};
    if (isIdle_) treeTimes_ = {report.all.userUs, report.all.kernelUs};
    goesOn = inJob_ && !isIdle_;
  }
  // Without a report the supervisor was killed; the zygote kills what was below it.
  End(count == sizeof report ? report.exitCode : 128 + SIGKILL);
  return goesOn;
}

void ChildProcess::OnLetGo() {
  const std::lock_guard lock(mutex_);
  if (isIdle_) Idle().Give(session_, {std::move(control_), zygote_});
  control_.Reset();
}

int ChildProcess::TakeOver() {
  return UnwatchDescriptor(controlDescriptor_, this) ? controlDescriptor_ : -1;
}

bool ChildProcess::ServeReport() {
  if (OnReadable()) return true;
  OnLetGo();
  return false;
}

void ChildProcess::GiveBack() {
  // Who can't be watched is given up: its supervisor sees that, and does as if this process had died.
  if (!WatchDescriptor(controlDescriptor_, shared_from_this())) OnLetGo();
}

ProcessTimes ChildProcess::TreeTimes(DWORD& active) const {
  active = 0;
  {
    const std::lock_guard lock(mutex_);
    if (!control_) return inJob_ ? treeTimes_ : ownTimes_;
  }
  ProcessTimes total;
  for (const auto& [pid, stat] : DescendantsOf(supervisor_)) {
    const bool isSupervisor = pid == supervisor_;
    if (!isSupervisor && stat.state != 'Z') ++active;
    total.userUs += TicksToMicroseconds((isSupervisor ? 0 : stat.userTicks) + stat.childUserTicks);
    total.kernelUs += TicksToMicroseconds((isSupervisor ? 0 : stat.kernelTicks) + stat.childKernelTicks);
  }
  total.userUs -= std::min(total.userUs, before_.userUs);
  total.kernelUs -= std::min(total.kernelUs, before_.kernelUs);
  return total;
}

// With mutex_ held. False if it has ended before.
bool ChildProcess::SetExitCode(DWORD exitCode) {
  if (exitCode_.load(std::memory_order_relaxed) != STILL_ACTIVE) return false;
  exitCode_.store(exitCode, std::memory_order_release);
  return true;
}

void ChildProcess::TellEnd() {
  exitNotice_->Set();
  Signal();
}

void ChildProcess::End(DWORD exitCode) {
  ChildRequest done;
  {
    const std::lock_guard lock(mutex_);
    if (!SetExitCode(exitCode)) return;
    done = std::move(request_);
  }
  TellEnd();
}

}  // namespace kestrun::platform
