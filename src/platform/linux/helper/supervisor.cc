// The supervisor's life: one tool after the other, each until nothing is left below.
//
//   phase        the tool                                     next
//   kWaiting     its process waits for kStart                 kRunning; exit, if the process ends before that
//   kRunning     runs                                         kKilled; kLeftovers; kEmpty
//   kKilled      ends with the exit code of the command       kLeftovers; kEmpty
//   kLeftovers   has ended, and something that it left runs   kEmpty
//   kEmpty       has ended, and nothing is left               kWaiting, with the next tool; exit, if the socket ended
//
//   event                   in kRunning, kKilled                         in kLeftovers
//   the tool ends           reports kEnded, with isEmpty if none is left
//   the last child ends                                                  reports kEmpty
//   kKillAll                keeps the exit code, kills everything        kills everything
//   kKillTool               keeps the exit code, kills the tool          nothing
//   kCloseJob               kills everything                             kills everything
//   kSignalGroup            signals the tool's group, if it has its own  nothing
//   the socket ends         kills everything if it is told to; waits for the end of everything, and exits
//
// Everything below this process becomes its child sooner or later, because it is a subreaper: when a process below it
// dies, the kernel gives that one's children to the supervisor. So "nothing is left" means that waiting for a child
// fails. A process group or a session would not do in its place, because any program can leave those.
//
// The process that waits for its tool is made by clone with the supervisor's memory, as vfork does it: no page table is
// copied, and what the process writes (phase_ and the tool's settings) is visible to the supervisor once the process
// has become the tool. The supervisor stands still until then; commands and reports of that time are handled by the
// waiting process itself.
//
// SIGCHLD is blocked except during ppoll, and its handler does nothing: the signal only ends the wait. So no child's
// end is missed between the last wait4 and the next ppoll.
#include "platform/linux/helper/supervisor.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "platform/linux/helper/helper_protocol.h"
#include "platform/linux/helper/kill_children.h"
#include "platform/linux/helper/tool_start.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace kestrun::platform {
namespace {

// The longest pause between two rounds of killing; see KillAll.
constexpr int kMaxKillPauseMs = 1000;

std::uint64_t Microseconds(const timeval& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_usec);
}

UsedTime UsedTimeOf(const rusage& usage) {
  return {Microseconds(usage.ru_utime), Microseconds(usage.ru_stime)};
}

std::uint32_t ExitCodeOf(int status) {
  return WIFEXITED(status) ? static_cast<std::uint32_t>(WEXITSTATUS(status))
                           : 128 + static_cast<std::uint32_t>(WTERMSIG(status));
}

// The time used by all children that were waited for, and by the children that those waited for.
UsedTime UsedByAll() {
  rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  return UsedTimeOf(usage);
}

// Phases of the present tool; see the top of this file.
enum class Phase { kWaiting, kRunning, kKilled, kLeftovers, kEmpty };

class Supervisor {
 public:
  // The zygote has SIGCHLD blocked, and this process has inherited that.
  explicit Supervisor(int control) : control_(control) {
    sigprocmask(SIG_SETMASK, nullptr, &whileWaiting_);
    sigdelset(&whileWaiting_, SIGCHLD);
  }

  [[noreturn]] void Run() {
    do {
      before_ = UsedByAll();
      StartTool();
      // The phase was changed by the tool's process, in this memory, before its exec.
      if (phase_ == Phase::kWaiting) OutliveUnusedTool();
      while (phase_ != Phase::kEmpty) {
        // poll ignores a negative descriptor.
        pollfd wait{isGivenUp_ ? -1 : control_, POLLIN, 0};
        const int ready = ppoll(&wait, 1, nullptr, &whileWaiting_);
        ReapAll();
        if (phase_ != Phase::kEmpty && ready > 0) ReceiveCommand();
      }
    } while (!isGivenUp_);
    _exit(0);
  }

 private:
  // Returns when the process has become the tool, or has ended without that. If no process can be made, the error is
  // reported in place of the process, and the supervisor exits.
  void StartTool() {
    phase_ = Phase::kWaiting;
    // The child's stack is part of this one and not on the heap, because AddressSanitizer accepts addresses of this
    // stack.
    alignas(16) char stack[kStackSize];
    tool_ = clone(&Supervisor::BecomeTool, std::end(stack), CLONE_VM | CLONE_VFORK | SIGCHLD, this);
#ifdef __SANITIZE_ADDRESS__
    // The child's calls ended with exec and not by returning, so their poisoned zones are still marked.
    __asan_unpoison_memory_region(stack, sizeof stack);
#endif
    if (tool_ > 0) return;
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

  // Runs in the tool's process, and returns only if there is no tool or it can't be run.
  void AwaitAndRunTool() {
    // If the supervisor dies before exec, this process must die too.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Report report = {};
    report.kind = ReportKind::kReady;
    report.tool = getpid();
    report.supervisor = getppid();
    report.all = before_;
    Send(report);
    // A changed parent means that the supervisor died before prctl; the signal then never comes.
    if (!start_.Receive(control_) || getppid() != report.supervisor) return;
    // From here on the process is the tool to the supervisor, even if the exec below fails: then it ends with 127.
    phase_ = Phase::kRunning;
    const ToolHeader& header = start_.header();
    killsOnClose_ = (header.flags & kToolKillOnClose) != 0;
    hasOwnGroup_ = (header.flags & kToolOwnGroup) != 0;
    if (hasOwnGroup_) setpgid(0, 0);
    // Relative to the caller's own nice value, which the helpers have inherited.
    if (header.nice != 0) setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + header.nice);
    const bool inFolder = start_.EnterWorkingDirectory();
    start_.PlaceDescriptors();
    const rlimit limit{header.descriptorLimit, header.descriptorMaximum};
    setrlimit(RLIMIT_NOFILE, &limit);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (inFolder) {
      start_.Execute();
    } else {
      dprintf(STDERR_FILENO, "KESTRUN: error: cannot enter the working directory\n");
    }
  }

  // The process that waited for its tool has ended: because the control socket has ended, or because it was killed. The
  // supervisor exits, and the pool takes another one.
  [[noreturn]] void OutliveUnusedTool() {
    while (waitpid(tool_, nullptr, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
  }

  void Send(const Report& report) const {
    send(control_, &report, sizeof report, MSG_NOSIGNAL);
  }

  // False once the tool was waited for: from then on its id may belong to another process and must not be signalled.
  bool IsToolThere() const {
    return phase_ < Phase::kLeftovers;
  }

  // Waits for all children that have ended, and reports when the tool or the last of them is among these.
  void ReapAll() {
    bool toolHasEnded = false;
    Report report = {};
    pid_t pid = 0;
    do {
      int status = 0;
      rusage usage = {};
      pid = wait4(-1, &status, WNOHANG, &usage);
      if (pid != tool_ || !IsToolThere()) continue;
      toolHasEnded = true;
      report.exitCode = phase_ == Phase::kKilled ? killCode_ : ExitCodeOf(status);
      report.own = UsedTimeOf(usage);
      report.peakBytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
      phase_ = Phase::kLeftovers;
    } while (pid > 0 || (pid < 0 && errno == EINTR));
    // wait4 fails (ECHILD) when there is no child at all, and gives 0 while some run.
    const bool isEmpty = pid != 0;
    if (!toolHasEnded && !isEmpty) return;
    if (isEmpty) phase_ = Phase::kEmpty;
    report.kind = toolHasEnded ? ReportKind::kEnded : ReportKind::kEmpty;
    report.isEmpty = isEmpty;
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
        killsOnClose_ = command.value != 0;
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
        if (IsToolThere()) kill(tool_, SIGKILL);
        break;
      case CommandKind::kSignalGroup:
        if (IsToolThere() && hasOwnGroup_) kill(-tool_, static_cast<int>(command.value));
        break;
      case CommandKind::kStart:
        break;
    }
  }

  void SetKillCode(std::uint32_t code) {
    if (phase_ != Phase::kRunning) return;
    phase_ = Phase::kKilled;
    killCode_ = code;
  }

  // The supervisor stays until everything below it has ended, even if it must not kill anything: if it exited, its
  // children would go to the zygote, which kills them as the remains of a killed supervisor.
  void OnClose() {
    isGivenUp_ = true;
    if (killsOnClose_) KillAll();
  }

  // Kills everything below this process and returns when all of it has ended. The kernel hands the children of a dying
  // process to this one before it sends the SIGCHLD for that process, so killing all children after each SIGCHLD
  // reaches everything. The pauses grow because a child that hangs in the kernel can't die yet, and asking again and
  // again would cost processor time.
  void KillAll() {
    if (IsToolThere()) {
      if (hasOwnGroup_) kill(-tool_, SIGKILL);
      kill(tool_, SIGKILL);
    }
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    int pauseMs = 10;
    for (ReapAll(); phase_ != Phase::kEmpty; ReapAll()) {
      KillChildren(hasOwnGroup_ ? tool_ : 0, nullptr, 0);
      const timespec pause{pauseMs / 1000, (pauseMs % 1000) * 1000000L};
      pauseMs = sigtimedwait(&child, nullptr, &pause) == SIGCHLD ? 10 : std::min(pauseMs * 2, kMaxKillPauseMs);
    }
  }

  static constexpr std::size_t kStackSize = 64 * 1024;

  const int control_;
  sigset_t whileWaiting_;
  bool isGivenUp_ = false;  // the socket has ended: no command and no further tool comes
  ToolStart start_;
  // Of the present tool, and set anew for each.
  UsedTime before_ = {};  // by all tools before
  pid_t tool_ = -1;
  Phase phase_ = Phase::kWaiting;
  bool hasOwnGroup_ = false;
  bool killsOnClose_ = false;
  std::uint32_t killCode_ = 0;  // with kKilled
};

}  // namespace

void RunSupervisor(int control) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  Supervisor(control).Run();
}

}  // namespace kestrun::platform
