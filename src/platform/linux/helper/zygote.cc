// The zygote's life, in one loop over its socket and SIGCHLD:
//
//   event                                   what it does
//   it starts                               ends the groups of supervisors that have gone (job_groups.h)
//   a SupervisorRequest                     forks a supervisor, which owns the control socket that came along and
//                                           enters a group of its own; sends kReady with the error if the fork fails
//   a supervisor exits                      forgets it and removes its group
//   a supervisor is killed, or a child      ends the group, and kills all other children: those that were below a
//   exits that is no supervisor             killed supervisor come to the zygote, which is their subreaper
//   the socket ends                         takes no more requests
//   the socket has ended, no child left     exits
//
// The killing spares supervisors, so everything below a living supervisor goes on.
//
// SIGCHLD is blocked except during ppoll, and its handler does nothing: the signal only ends the wait, and no child's
// end is missed between a waitpid and the next ppoll.
#include "platform/linux/helper/zygote.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/linux/base/descriptor_passing.h"
#include "platform/linux/helper/helper_protocol.h"
#include "platform/linux/helper/job_groups.h"
#include "platform/linux/helper/kill_children.h"
#include "platform/linux/helper/supervisor.h"

namespace kestrun::platform {
namespace {

// Signals that a terminal or a shutdown sends to whole process groups. A helper must outlive them, to end what its
// tools leave behind. They are blocked and not ignored, because exec keeps ignored signals ignored, while a mask is
// reset by one call before the exec.
constexpr int kBlockedSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU};

void CloseAllAbove(int descriptor) {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, descriptor + 1, ~0U, 0) == 0) return;
#endif
  // Kernels before 5.9 have no close_range. The limit may be in the millions, and closing that many would take seconds.
  const long limit = std::min(sysconf(_SC_OPEN_MAX), 65536L);
  for (int i = descriptor + 1; i < limit; ++i) close(i);
}

// SIGCHLD is blocked except during ppoll, so it interrupts no other call.
void PrepareSignals() {
  // Set by the system call, for all signals: posix_spawn leaves the C library's two private signals ignored, the
  // library's sigaction refuses to change them, and tools would inherit them.
  const unsigned long defaultAction[4] = {};
  for (int number = 1; number < NSIG; ++number) syscall(SYS_rt_sigaction, number, defaultAction, nullptr, NSIG / 8);
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGCHLD, &action, nullptr);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGCHLD);
  for (const int number : kBlockedSignals) sigaddset(&blocked, number);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

class ZygoteLoop {
 public:
  explicit ZygoteLoop(int socket) : socket_(socket), groups_(JobGroups::OfThisProcess()) { groups_.Sweep(); }

  [[noreturn]] void Run() {
    sigset_t whileWaiting;
    sigprocmask(SIG_SETMASK, nullptr, &whileWaiting);
    sigdelset(&whileWaiting, SIGCHLD);
    while (true) {
      // poll ignores a negative descriptor.
      pollfd wait{isConnected_ ? socket_ : -1, POLLIN, 0};
      const int ready = ppoll(&wait, 1, nullptr, &whileWaiting);
      ReapChildren();
      if (!isConnected_ && supervisors_.empty() && !HasChildren()) _exit(0);
      if (ready > 0) ReceiveRequest();
    }
  }

 private:
  static bool HasChildren() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
  }

  // Every child that is no supervisor was below a supervisor that was killed, and is killed with all others of that
  // kind. The kernel hands over the children of a dead process before it sends the SIGCHLD for it, so none is missed.
  void ReapChildren() {
    bool hasOrphans = false;
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      const auto supervisor = std::find(supervisors_.begin(), supervisors_.end(), pid);
      if (supervisor == supervisors_.end() || WIFSIGNALED(status)) hasOrphans = true;
      if (supervisor == supervisors_.end()) continue;
      supervisors_.erase(supervisor);
      groups_.End(pid);
    }
    if (!hasOrphans) return;
    KillChildren(0, supervisors_.data(), supervisors_.size());
    groups_.Sweep();
  }

  void ReceiveRequest() {
    SupervisorRequest request = {};
    int descriptors[kMaxPassedDescriptors];
    std::size_t count = 0;
    const ssize_t length = ReceiveDescriptors(socket_, &request, sizeof request, descriptors, count);
    // Out of descriptors or buffers, the request stays in the socket and is read at the next turn.
    if (length < 0 && (errno == EINTR || errno == EAGAIN || errno == EMFILE || errno == ENOBUFS)) return;
    if (length <= 0) {
      isConnected_ = false;
      close(socket_);
      if (supervisors_.empty() && !HasChildren()) _exit(0);
      return;
    }
    // Anything but a request with one socket is dropped. The descriptors are closed below in any case: the supervisor
    // has its own copy from the fork.
    if (length == sizeof request && request.magic == kSupervisorMagic && count == 1) StartSupervisor(descriptors[0]);
    for (std::size_t i = 0; i < count; ++i) close(descriptors[i]);
  }

  void StartSupervisor(int control) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(socket_);
      groups_.Enter(getpid());
      RunSupervisor(control);
    }
    if (pid > 0) {
      supervisors_.push_back(pid);
      return;
    }
    Report report = {};
    report.kind = ReportKind::kReady;
    report.error = errno;
    send(control, &report, sizeof report, MSG_NOSIGNAL);
  }

  const int socket_;
  const JobGroups groups_;
  bool isConnected_ = true;
  std::vector<pid_t> supervisors_;
};

}  // namespace

void RunZygote(int socket) {
  CloseAllAbove(socket);
  PrepareSignals();
  prctl(PR_SET_NAME, kHelperName);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  // The helper leaves the folder in which its process was started, so that it can be unmounted or removed while the
  // helper lives.
  [[maybe_unused]] const int result = chdir("/");
  HelloMessage hello = {};
  if (recv(socket, &hello, sizeof hello, 0) != sizeof hello || hello.magic != kHelloMagic) _exit(127);
  // A session without a terminal: the terminal's signals reach neither the helpers nor the tools.
  if (hello.session == SessionKind::kOwn) setsid();
  ZygoteLoop(socket).Run();
}

}  // namespace kestrun::platform
