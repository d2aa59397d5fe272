#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <vector>

#include "platform/linux/helper_protocol.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

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

UsedTime UsedTimeOf(const rusage& usage) {
  return {Microseconds(usage.ru_utime), Microseconds(usage.ru_stime)};
}

// Of all children that have been waited for, with theirs.
UsedTime UsedByAll() {
  rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  return UsedTimeOf(usage);
}

// What to run and with what, once it has come. Used again and again, so that its memory is there already.
class ToolStart {
 public:
  // Waits for a kStart; false when none is to come.
  bool Receive(int control) {
    Command command = {};
    std::size_t count = 0;
    do {
      const ssize_t length = ReceiveDescriptors(control, &command, sizeof command, descriptors_, count);
      if (length < 0 && errno == EINTR) continue;
      if (length <= 0) return false;
      const std::size_t received = static_cast<std::size_t>(length);
      if (!ReceiveAll(control, reinterpret_cast<char*>(&command) + received, sizeof command - received)) return false;
    } while (command.kind != CommandKind::kStart);
    header_ = command.tool;
    return count == 1 + static_cast<std::size_t>(std::popcount(header_.streams & 7u)) && ReceiveText(control);
  }

  const ToolHeader& header() const { return header_; }

  bool EnterWorkingDirectory() const { return fchdir(descriptors_[0]) == 0; }

  void PlaceStreams() const {
    std::size_t next = 1;
    for (int i = 0; i < 3; ++i) {
      // The helper's own three are /dev/null.
      if ((header_.streams & (1u << i)) != 0) dup2(descriptors_[next++], i);
    }
  }

  void Execute() const {
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
  }

 private:
  static constexpr std::size_t kKeptText = 256 * 1024;

  bool ReceiveText(int control) {
    if (text_.capacity() > kKeptText) std::vector<char>().swap(text_);
    text_.resize(header_.textSize + 1);
    if (!ReceiveAll(control, text_.data(), header_.textSize)) return false;
    text_.back() = '\0';
    char* at = text_.data();
    path_ = Take(at);
    TakeAll(at, header_.argumentCount, arguments_);
    TakeAll(at, header_.variableCount, variables_);
    return true;
  }

  static char* Take(char*& at) {
    char* const start = at;
    at += std::strlen(at) + 1;
    return start;
  }

  static void TakeAll(char*& at, std::uint32_t count, std::vector<char*>& entries) {
    entries.clear();
    for (std::uint32_t i = 0; i < count; ++i) entries.push_back(Take(at));
    entries.push_back(nullptr);
  }

  ToolHeader header_ = {};
  int descriptors_[kMaxStartDescriptors];
  std::vector<char> text_;
  const char* path_ = nullptr;
  std::vector<char*> arguments_;
  std::vector<char*> variables_;
};

// Runs one tool after the other, each with everything below it until nothing is left.
//
// The process that is to be the tool shares this one's memory until it becomes the tool, and this one stands still for
// so long: so it costs no copy, and leaves here what the supervisor has to know.
class Supervisor {
 public:
  explicit Supervisor(int control) : control_(control) {
    sigprocmask(SIG_SETMASK, nullptr, &whileWaiting_);
    sigdelset(&whileWaiting_, SIGCHLD);
  }

  [[noreturn]] void Run() {
    do {
      before_ = UsedByAll();
      ended_ = killed_ = isLetGo_ = false;
      StartTool();
      if (!isLetGo_) OutliveUnusedTool();
      while (isLeft_) {
        // poll skips a negative descriptor.
        pollfd wait{closed_ ? -1 : control_, POLLIN, 0};
        const int ready = ppoll(&wait, 1, nullptr, &whileWaiting_);
        ReapAll();
        if (isLeft_ && ready > 0) ReceiveCommand();
      }
    } while (!closed_);
    _exit(0);
  }

 private:
  // Returns when the process has become the tool, or has ended before.
  void StartTool() {
    // Here and not on the heap: what watches over memory in a test build knows this stack.
    alignas(16) char stack[kStackSize];
    tool_ = clone(&Supervisor::BecomeTool, std::end(stack), CLONE_VM | CLONE_VFORK | SIGCHLD, this);
#ifdef __SANITIZE_ADDRESS__
    // Nobody returned from the calls that were made there, so their marks are still on it.
    __asan_unpoison_memory_region(stack, sizeof stack);
#endif
    isLeft_ = tool_ > 0;
    if (isLeft_) return;
    Report report = {};
    report.kind = ReportKind::kReady;
    report.error = errno;
    Send(report);
    _exit(0);
  }

  static int BecomeTool(void* self) {
    static_cast<Supervisor*>(self)->AwaitAndRunTool();
    return 127;
  }

  // In the tool's process.
  void AwaitAndRunTool() {
    // Who has no supervisor is not to become a tool any more.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Report report = {};
    report.kind = ReportKind::kReady;
    report.tool = getpid();
    report.supervisor = getppid();
    report.all = before_;
    Send(report);
    if (!start_.Receive(control_) || getppid() != report.supervisor) return;
    isLetGo_ = true;
    const ToolHeader& header = start_.header();
    killOnClose_ = (header.flags & kToolKillOnClose) != 0;
    ownGroup_ = (header.flags & kToolOwnGroup) != 0;
    if (ownGroup_) setpgid(0, 0);
    if (header.nice != 0) setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + header.nice);
    const rlimit limit{header.descriptorLimit, header.descriptorMaximum};
    setrlimit(RLIMIT_NOFILE, &limit);
    const bool inFolder = start_.EnterWorkingDirectory();
    start_.PlaceStreams();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (inFolder) {
      start_.Execute();
    } else {
      dprintf(STDERR_FILENO, "KESTRUN: error: cannot enter the working directory\n");
    }
  }

  // The socket has ended, or somebody has killed what was still to become a tool.
  [[noreturn]] void OutliveUnusedTool() {
    while (waitpid(tool_, nullptr, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
  }

  void Send(const Report& report) const {
    send(control_, &report, sizeof report, MSG_NOSIGNAL);
  }

  // Takes note of all that have ended, and reports when that changes something.
  void ReapAll() {
    bool toolHasEnded = false;
    Report report = {};
    pid_t pid = 0;
    do {
      int status = 0;
      rusage usage = {};
      pid = wait4(-1, &status, WNOHANG, &usage);
      if (pid != tool_ || ended_) continue;
      toolHasEnded = ended_ = true;
      report.exitCode = WIFEXITED(status) ? static_cast<std::uint32_t>(WEXITSTATUS(status))
                                          : 128 + static_cast<std::uint32_t>(WTERMSIG(status));
      if (killed_) report.exitCode = killCode_;
      report.own = UsedTimeOf(usage);
    } while (pid > 0 || (pid < 0 && errno == EINTR));
    isLeft_ = pid == 0;
    if (!toolHasEnded && isLeft_) return;
    report.kind = toolHasEnded ? ReportKind::kEnded : ReportKind::kEmpty;
    report.isEmpty = !isLeft_;
    report.all = UsedByAll();
    report.all.userUs -= before_.userUs;
    report.all.kernelUs -= before_.kernelUs;
    Send(report);
  }

  void ReceiveCommand() {
    Command command = {};
    if (!ReceiveAll(control_, &command, sizeof command)) return OnClose();
    switch (command.kind) {
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

  void SetKillCode(std::uint32_t code) {
    if (ended_ || killed_) return;
    killed_ = true;
    killCode_ = code;
  }

  // What is not to be ended is outlived: to leave now would hand it to the zygote, which takes it for the remains of a
  // killed supervisor.
  void OnClose() {
    closed_ = true;
    if (killOnClose_) KillAll();
  }

  // Children that die hand theirs to this process before the signal about them comes, so to kill all children at each
  // death reaches everything. The pauses are for a child that can't be killed at once.
  void KillAll() {
    if (!ended_) {
      if (ownGroup_) kill(-tool_, SIGKILL);
      kill(tool_, SIGKILL);
    }
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    int pauseMs = 10;
    for (ReapAll(); isLeft_; ReapAll()) {
      KillChildren(ownGroup_ ? tool_ : 0, nullptr, 0);
      const timespec pause{pauseMs / 1000, (pauseMs % 1000) * 1000000L};
      pauseMs = sigtimedwait(&child, nullptr, &pause) == SIGCHLD ? 10 : std::min(pauseMs * 2, kMaxKillPauseMs);
    }
  }

  static constexpr std::size_t kStackSize = 64 * 1024;

  const int control_;
  sigset_t whileWaiting_;
  bool closed_ = false;
  ToolStart start_;
  // Of the present tool.
  UsedTime before_ = {};  // what was used before it
  pid_t tool_ = -1;
  bool isLetGo_ = false;  // has been told what it is to be
  bool ownGroup_ = false;
  bool killOnClose_ = false;
  bool ended_ = false;   // and was waited for, so that its id may come to be another process's
  bool isLeft_ = false;  // it, or something that it has left behind
  bool killed_ = false;
  std::uint32_t killCode_ = 0;
};

}  // namespace

void RunSupervisor(int control) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  Supervisor(control).Run();
}

}  // namespace kestrun::platform
