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

// Supervisors without a tool, by their control sockets. They end with this process.
class IdleSupervisors {
 public:
  FileDescriptor Take(SessionKind session) {
    const std::lock_guard lock(mutex_);
    std::vector<FileDescriptor>& idle = idle_[static_cast<std::size_t>(session)];
    if (idle.empty()) return FileDescriptor();
    FileDescriptor control = std::move(idle.back());
    idle.pop_back();
    return control;
  }

  void Give(SessionKind session, FileDescriptor control) {
    const std::lock_guard lock(mutex_);
    std::vector<FileDescriptor>& idle = idle_[static_cast<std::size_t>(session)];
    if (idle.size() < kMost) idle.push_back(std::move(control));
  }

 private:
  // More tools than that hardly run at once for long.
  static constexpr std::size_t kMost = 32;

  std::mutex mutex_;
  std::vector<FileDescriptor> idle_[2];  // guarded by mutex_; by session kind
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
      if (request.streams[i] < 0) continue;
      streams |= 1u << i;
      values[count++] = request.streams[i];
    }
  }

  std::uint32_t streams = 0;
  int values[kMaxStartDescriptors - 1];
  std::size_t count = 0;
};

// ToolHeader and text.
std::string MakePayload(const ChildRequest& request) {
  const rlimit limit = OriginalDescriptorLimit();
  ToolHeader header = {};
  if (request.ownGroup) header.flags |= kToolOwnGroup;
  header.nice = request.nice;
  header.descriptorLimit = limit.rlim_cur;
  header.descriptorMaximum = limit.rlim_max;
  header.argumentCount = static_cast<std::uint32_t>(request.arguments.size());
  header.variableCount = static_cast<std::uint32_t>(request.variables.size());
  std::string text(sizeof header, '\0');
  const auto append = [&text](const std::string& entry) { text.append(entry.c_str(), entry.size() + 1); };
  append(request.path);
  for (const std::string& entry : request.arguments) append(entry);
  for (const std::string& entry : request.variables) append(entry);
  header.textSize = text.size() - sizeof header;
  text.replace(0, sizeof header, reinterpret_cast<const char*>(&header), sizeof header);
  return text;
}

// The session of a zygote shares the processors with others as a whole, so its tools' priority is the session's too.
int HandOver(const ChildRequest& request, int supervisorEnd) {
  const StartDescriptors given(request);
  int descriptors[kMaxStartDescriptors] = {supervisorEnd};
  std::copy_n(given.values, given.count, descriptors + 1);
  return SendToZygote(request.session, request.nice, StartMessage{given.streams}, descriptors, 1 + given.count);
}

bool ReceiveStarted(int control, Report& report) {
  ssize_t count = 0;
  do {
    count = recv(control, &report, sizeof report, MSG_WAITALL);
  } while (count < 0 && errno == EINTR);
  return count == sizeof report;
}

// False if no idle supervisor took the tool: one that was killed meanwhile is dropped.
bool AskIdleSupervisor(const ChildRequest& request, const std::string& payload, FileDescriptor& control,
                       Report& report) {
  control = Idle().Take(request.session);
  if (!control) return false;
  const StartDescriptors given(request);
  const Command command{CommandKind::kStart, given.streams};
  std::string message(reinterpret_cast<const char*>(&command), sizeof command);
  message += payload;
  for (; control; control = Idle().Take(request.session)) {
    const ssize_t sent = SendDescriptors(control.get(), message.data(), message.size(), given.values, given.count);
    if (sent <= 0) continue;
    const std::size_t done = static_cast<std::size_t>(sent);
    if (SendAll(control.get(), message.data() + done, message.size() - done) && ReceiveStarted(control.get(), report)) {
      return true;
    }
  }
  return false;
}

// True with an answer; false when the helpers died over it, so that it can be tried again.
bool AskForTool(const ChildRequest& request, const std::string& payload, FileDescriptor& control, Report& report) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    report.error = errno;
    return true;
  }
  control = FileDescriptor(ends[0]);
  FileDescriptor supervisorEnd(ends[1]);
  report.error = HandOver(request, supervisorEnd.get());
  if (report.error != 0) return true;
  supervisorEnd.Reset();
  if (!SendAll(control.get(), payload.data(), payload.size())) return false;
  return ReceiveStarted(control.get(), report);
}

DWORD ErrorOfStart(int error) {
  const DWORD win32Error = Win32ErrorFromErrno(error);
  return error == EAGAIN || error == ENOMEM || error == EPIPE || error == ECONNRESET ? ERROR_NOT_ENOUGH_MEMORY
                                                                                     : win32Error;
}

}  // namespace

ExitNotice::ExitNotice() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ExitNotice::Set() {
  set_.store(true, std::memory_order_release);
  if (event_) eventfd_write(event_.get(), 1);
}

std::shared_ptr<ChildProcess> ChildProcess::Start(const ChildRequest& request, DWORD& error) {
  const std::string payload = MakePayload(request);
  FileDescriptor control;
  Report report = {};
  bool answered = AskIdleSupervisor(request, payload, control, report);
  for (int attempt = 0; attempt < 3 && !answered; ++attempt) answered = AskForTool(request, payload, control, report);
  if (!answered) report.error = EAGAIN;
  if (report.error != 0) {
    error = ErrorOfStart(report.error);
    return nullptr;
  }
  const int descriptor = control.get();
  auto child = std::make_shared<ChildProcess>(request, report, std::move(control));
  {
    const std::lock_guard lock(Registry().mutex);
    Registry().children[child->pid()] = child;
  }
  if (!child->exitNotice_->IsValid() || !WatchDescriptor(descriptor, child)) {
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

ChildProcess::ChildProcess(const ChildRequest& request, const Report& started, FileDescriptor control)
    : ProcessObject(started.tool),
      supervisor_(started.supervisor),
      session_(request.session),
      before_{started.userTimeUs, started.kernelTimeUs},
      mayBeInterrupted_(request.mayBeInterrupted),
      exitNotice_(std::make_shared<ExitNotice>()),
      exitCode_(STILL_ACTIVE),
      control_(std::move(control)) {}

ChildProcess::~ChildProcess() {
  const std::lock_guard lock(Registry().mutex);
  const auto found = Registry().children.find(pid());
  // The id may be another child's by now.
  if (found != Registry().children.end() && found->second.expired()) Registry().children.erase(found);
}

bool ChildProcess::SendCommands(const Command* commands, std::size_t count) {
  return control_ && SendAll(control_.get(), commands, count * sizeof *commands);
}

bool ChildProcess::Send(CommandKind kind, DWORD value) {
  const Command command{kind, value};
  const std::lock_guard lock(mutex_);
  return SendCommands(&command, 1);
}

bool ChildProcess::LetRun() {
  const std::lock_guard lock(mutex_);
  if (resumed_) return false;
  resumed_ = true;
  const Command commands[] = {{CommandKind::kKillOnClose, killOnClose_}, {CommandKind::kResume, 0}};
  SendCommands(commands, 2);
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
  const Command command{CommandKind::kKillOnClose, killOnClose};
  if (resumed_) SendCommands(&command, 1);
}

// The reaper still wants to hear of the tool's end, so that those who wait for it wake. A tool that may go on keeps its
// supervisor for itself.
void ChildProcess::CloseJob() {
  const std::lock_guard lock(mutex_);
  if (!control_) return;
  const Command command{CommandKind::kCloseJob, 0};
  if (killOnClose_ || !resumed_) {
    SendCommands(&command, 1);
  } else {
    shutdown(control_.get(), SHUT_WR);
  }
}

bool ChildProcess::KillAll(DWORD exitCode) {
  return Send(CommandKind::kKillAll, exitCode);
}

bool ChildProcess::SignalGroup(int signal) {
  return mayBeInterrupted_ && !IsSignalled() && Send(CommandKind::kSignalGroup, static_cast<DWORD>(signal));
}

DWORD ChildProcess::ExitCode() const {
  return exitCode_.load(std::memory_order_acquire);
}

bool ChildProcess::Terminate(DWORD exitCode) {
  if (!IsSignalled() && Send(CommandKind::kKillTool, exitCode)) return true;
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
    count = recv(control_.get(), &report, sizeof report, MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) return true;
  if (count == sizeof report && report.kind == ReportKind::kEnded) {
    const bool wanted = KeepTimes(report, ownTimes_);
    End(report.exitCode);
    return wanted;
  }
  if (count == sizeof report && report.kind == ReportKind::kEmpty) {
    KeepTimes(report, treeTimes_);
    const std::lock_guard lock(mutex_);
    isIdle_ = true;
  }
  // Without a report of the tool's end the supervisor was killed; the zygote kills what was below it.
  End(128 + SIGKILL);
  return false;
}

void ChildProcess::OnLetGo() {
  const std::lock_guard lock(mutex_);
  if (isIdle_) Idle().Give(session_, std::move(control_));
  control_.Reset();
}

// True while a job may still have something to say about what the tool has left behind.
bool ChildProcess::KeepTimes(const Report& report, ProcessTimes& times) {
  const std::lock_guard lock(mutex_);
  times = ProcessTimes{report.userTimeUs, report.kernelTimeUs};
  return inJob_;
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

void ChildProcess::End(DWORD exitCode) {
  if (IsSignalled()) return;
  exitCode_.store(exitCode, std::memory_order_release);
  exitNotice_->Set();
  Signal();
}

}  // namespace kestrun::platform
