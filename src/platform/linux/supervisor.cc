#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/linux/helper_protocol.h"

namespace kestrun::platform {
namespace {

constexpr int kMaxKillPauseMs = 1000;

bool ReceiveAll(int socket, void* buffer, std::size_t size) {
  char* at = static_cast<char*>(buffer);
  while (size > 0) {
    const ssize_t count = recv(socket, at, size, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

std::uint64_t Microseconds(const timeval& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_usec);
}

// What to run, in the form that execve takes.
class ToolImage {
 public:
  bool Receive(int control) {
    if (!ReceiveAll(control, &header_, sizeof header_)) return false;
    text_.resize(header_.textSize + 1);
    if (!ReceiveAll(control, text_.data(), header_.textSize)) return false;
    char* at = text_.data();
    path_ = Take(at);
    for (std::uint32_t i = 0; i < header_.argumentCount; ++i) arguments_.push_back(Take(at));
    for (std::uint32_t i = 0; i < header_.variableCount; ++i) variables_.push_back(Take(at));
    arguments_.push_back(nullptr);
    variables_.push_back(nullptr);
    return true;
  }

  const ToolHeader& header() const { return header_; }

  [[noreturn]] void Execute() const {
    timespec pause{0, 1000000};
    do {
      execve(path_, arguments_.data(), variables_.data());
      // Somebody who has just written the file may still hold it for writing, through a fork of his that has not come
      // to its own exec yet.
      if (errno != ETXTBSY) break;
      nanosleep(&pause, nullptr);
      pause.tv_nsec *= 2;
    } while (pause.tv_nsec < 300000000);
    dprintf(STDERR_FILENO, "KESTRUN: error: cannot run %s: %s\n", path_, std::strerror(errno));
    _exit(127);
  }

 private:
  char* Take(char*& at) const {
    char* const start = at;
    at += std::strlen(at) + 1;
    return start;
  }

  ToolHeader header_ = {};
  std::vector<char> text_;
  const char* path_ = nullptr;
  std::vector<char*> arguments_;
  std::vector<char*> variables_;
};

void ResetSignals() {
  // The C library won't touch the two signals that it keeps for itself, which posix_spawn leaves ignored.
  const unsigned long defaultAction[4] = {};
  for (int number = 1; number < NSIG; ++number) syscall(SYS_rt_sigaction, number, defaultAction, nullptr, NSIG / 8);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// What a tool is started with, besides the text. Owns the descriptors; -1 in `streams` is /dev/null.
struct ToolPlace {
  ToolPlace(std::uint32_t given, const int* descriptors) : workingDirectory(descriptors[0]) {
    std::size_t next = 1;
    for (unsigned i = 0; i < 3; ++i) streams[i] = (given & (1u << i)) != 0 ? descriptors[next++] : -1;
  }

  void Close() const {
    close(workingDirectory);
    for (const int stream : streams) {
      if (stream >= 0) close(stream);
    }
  }

  int workingDirectory;
  int streams[3];
};

void PlaceStreams(const int (&streams)[3]) {
  for (int i = 0; i < 3; ++i) {
    // The helper's own three are /dev/null.
    if (streams[i] >= 0) dup2(streams[i], i);
  }
}

// Between fork and exec: waits at the gate, so that the tool does nothing until it is let go.
[[noreturn]] void BecomeTool(const ToolImage& image, int gate, const ToolPlace& place) {
  const ToolHeader& header = image.header();
  if ((header.flags & kToolOwnGroup) != 0) setpgid(0, 0);
  if (header.nice != 0) setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + header.nice);
  const rlimit limit{header.descriptorLimit, header.descriptorMaximum};
  setrlimit(RLIMIT_NOFILE, &limit);
  const bool inFolder = fchdir(place.workingDirectory) == 0;
  PlaceStreams(place.streams);
  ResetSignals();
  char go = 0;
  ssize_t count = 0;
  do {
    count = read(gate, &go, 1);
  } while (count < 0 && errno == EINTR);
  if (count != 1) _exit(127);
  if (!inFolder) {
    dprintf(STDERR_FILENO, "KESTRUN: error: cannot enter the working directory\n");
    _exit(127);
  }
  image.Execute();
}

// One tool and everything below it, from its start until nothing is left.
class Supervision {
 public:
  explicit Supervision(int control) : control_(control) { getrusage(RUSAGE_CHILDREN, &before_); }

  void Run(const ToolPlace& place) {
    StartTool(place);
    sigset_t none;
    sigemptyset(&none);
    while (!empty_) {
      // poll skips a negative descriptor.
      pollfd wait{closed_ ? -1 : control_, POLLIN, 0};
      const int ready = ppoll(&wait, 1, nullptr, &none);
      NoticeChildren();
      if (ready > 0) ReceiveCommand();
      if (closed_ && ended_) Outlast();
    }
  }

 private:
  void StartTool(const ToolPlace& place) {
    ToolImage image;
    if (!image.Receive(control_)) _exit(0);
    Report report = {};
    report.kind = ReportKind::kStarted;
    report.supervisor = getpid();
    report.userTimeUs = Microseconds(before_.ru_utime);
    report.kernelTimeUs = Microseconds(before_.ru_stime);
    int gate[2];
    if (pipe2(gate, O_CLOEXEC) == 0) tool_ = fork();
    if (tool_ == 0) {
      close(control_);
      close(gate[1]);
      BecomeTool(image, gate[0], place);
    }
    report.error = tool_ < 0 ? errno : 0;
    report.tool = tool_;
    if (tool_ < 0) {
      Send(report);
      _exit(0);
    }
    ownGroup_ = (image.header().flags & kToolOwnGroup) != 0;
    // The child does the same: whoever comes first, the group exists when somebody asks for it.
    if (ownGroup_) setpgid(tool_, tool_);
    close(gate[0]);
    gate_ = gate[1];
    place.Close();
    Send(report);
  }

  void Send(const Report& report) const { send(control_, &report, sizeof report, MSG_NOSIGNAL); }

  // The tool that has ended is left unwaited for, so that its id, which is its group's too, stays its own.
  void NoticeChildren() {
    siginfo_t info = {};
    while (info.si_pid = 0, waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
      if (info.si_pid == tool_) {
        NoticeTool();
        return;
      }
      waitpid(info.si_pid, nullptr, WNOHANG);
    }
  }

  void NoticeTool() {
    if (ended_) return;
    siginfo_t info = {};
    rusage usage = {};
    if (syscall(SYS_waitid, P_PID, tool_, &info, WEXITED | WNOHANG | WNOWAIT, &usage) != 0 || info.si_pid != tool_) {
      return;
    }
    ReportEnd(info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status, usage);
  }

  void ReportEnd(int exitCode, const rusage& usage) {
    ended_ = true;
    Report report = {};
    report.kind = ReportKind::kEnded;
    report.exitCode = killed_ ? killCode_ : static_cast<std::uint32_t>(exitCode);
    report.userTimeUs = Microseconds(usage.ru_utime);
    report.kernelTimeUs = Microseconds(usage.ru_stime);
    Send(report);
  }

  void ReceiveCommand() {
    Command command = {};
    if (!ReceiveAll(control_, &command, sizeof command)) return OnClose();
    switch (command.kind) {
      case CommandKind::kResume:
        OpenGate();
        break;
      case CommandKind::kKillOnClose:
        killOnClose_ = command.value != 0;
        break;
      case CommandKind::kKillAll:
        SetKillCode(command.value);
        KillAll();
        break;
      case CommandKind::kCloseJob:
        KillAll();
        break;
      case CommandKind::kKillTool:
        SetKillCode(command.value);
        if (!ended_) kill(tool_, SIGKILL);
        break;
      case CommandKind::kSignalGroup:
        if (!ended_ && ownGroup_) kill(-tool_, static_cast<int>(command.value));
        break;
      case CommandKind::kStart:
        break;
    }
  }

  void OpenGate() {
    if (resumed_) return;
    resumed_ = true;
    // A tool that is dead already has no gate left to open.
    [[maybe_unused]] const ssize_t written = write(gate_, "", 1);
    CloseGate();
  }

  void CloseGate() {
    if (gate_ >= 0) close(gate_);
    gate_ = -1;
  }

  void SetKillCode(std::uint32_t code) {
    NoticeTool();
    if (ended_ || killed_) return;
    killed_ = true;
    killCode_ = code;
  }

  void OnClose() {
    if (!resumed_ || killOnClose_) KillAll();
    closed_ = true;
  }

  // Nobody asks any more and nothing is to be ended. To leave now would hand what is left to the zygote, which takes it
  // for the remains of a killed supervisor.
  [[noreturn]] void Outlast() {
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    _exit(0);
  }

  // Children that die hand theirs to this process before the signal about them comes, so to kill all children at each
  // death reaches everything. The pauses are for a child that can't be killed at once.
  void KillAll() {
    if (ownGroup_) kill(-tool_, SIGKILL);
    kill(tool_, SIGKILL);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    int pauseMs = 10;
    while (ReapAll()) {
      KillChildren(nullptr, 0);
      const timespec pause{pauseMs / 1000, (pauseMs % 1000) * 1000000L};
      pauseMs = sigtimedwait(&child, nullptr, &pause) == SIGCHLD ? 10 : std::min(pauseMs * 2, kMaxKillPauseMs);
    }
    Report report = {};
    report.kind = ReportKind::kEmpty;
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    report.userTimeUs = Microseconds(usage.ru_utime) - Microseconds(before_.ru_utime);
    report.kernelTimeUs = Microseconds(usage.ru_stime) - Microseconds(before_.ru_stime);
    CloseGate();
    empty_ = true;
    Send(report);
  }

  // False once there is no child left.
  bool ReapAll() {
    while (true) {
      int status = 0;
      rusage usage = {};
      const pid_t pid = wait4(-1, &status, WNOHANG, &usage);
      if (pid == 0) return true;
      if (pid < 0) return errno == EINTR;
      if (pid == tool_ && !ended_) ReportEnd(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), usage);
    }
  }

  const int control_;
  rusage before_ = {};  // of all tools before
  pid_t tool_ = -1;
  int gate_ = -1;
  bool ownGroup_ = false;
  bool resumed_ = false;
  bool ended_ = false;
  bool closed_ = false;
  bool empty_ = false;
  bool killOnClose_ = false;
  bool killed_ = false;
  std::uint32_t killCode_ = 0;
};

// Waits, idle, for the next tool. False when none is to come.
bool ReceiveStart(int control, Command& command, int (&descriptors)[kMaxStartDescriptors]) {
  while (true) {
    std::size_t count = 0;
    const ssize_t length = ReceiveDescriptors(control, &command, sizeof command, descriptors, count);
    if (length < 0 && errno == EINTR) continue;
    if (length != sizeof command) return false;
    if (command.kind != CommandKind::kStart) continue;
    return count == 1 + static_cast<std::size_t>(std::popcount(command.value & 7u));
  }
}

}  // namespace

void RunSupervisor(std::int32_t zygote, int control, std::uint32_t streams, const int* descriptors) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  Supervision(control).Run(ToolPlace(streams, descriptors));
  Command command = {};
  int next[kMaxStartDescriptors];
  while (ReceiveStart(control, command, next) && getppid() == zygote) {
    Supervision(control).Run(ToolPlace(command.value, next));
  }
  _exit(0);
}

}  // namespace kestrun::platform
