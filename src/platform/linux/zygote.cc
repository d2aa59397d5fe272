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
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/linux/helper_protocol.h"
#include "platform/linux/process_stat.h"

namespace kestrun::platform {
namespace {

void CloseAllBut(int descriptor) {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, descriptor + 1, ~0U, 0) == 0) return;
#endif
  const long limit = std::min(sysconf(_SC_OPEN_MAX), 65536L);
  for (int i = descriptor + 1; i < limit; ++i) close(i);
}

void SetAutogroupNice(int nice) {
  const int file = open("/proc/self/autogroup", O_WRONLY | O_CLOEXEC);
  if (file < 0) return;
  char text[12];
  const int length = std::snprintf(text, sizeof text, "%d", nice);
  // A kernel without autogroups has nothing to set.
  [[maybe_unused]] const ssize_t written = write(file, text, static_cast<std::size_t>(length));
  close(file);
}

// SIGCHLD interrupts ppoll and nothing else: it is blocked outside of it.
void PrepareSignals() {
  // The C library won't touch the two signals that it keeps for itself, which posix_spawn leaves ignored.
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
  explicit ZygoteLoop(int socket) : socket_(socket) {}

  [[noreturn]] void Run() {
    sigset_t whileWaiting;
    sigprocmask(SIG_SETMASK, nullptr, &whileWaiting);
    sigdelset(&whileWaiting, SIGCHLD);
    while (true) {
      // poll skips a negative descriptor.
      pollfd wait{connected_ ? socket_ : -1, POLLIN, 0};
      const int ready = ppoll(&wait, 1, nullptr, &whileWaiting);
      ReapChildren();
      if (!connected_ && supervisors_.empty() && !HasChildren()) _exit(0);
      if (ready > 0) ReceiveRequest();
    }
  }

 private:
  static bool HasChildren() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
  }

  // A child that is no supervisor was below one that has been killed: nobody else answers for it now, so it ends. Its
  // own children come here before the news of its death does.
  void ReapChildren() {
    bool orphans = false;
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      const auto supervisor = std::find(supervisors_.begin(), supervisors_.end(), pid);
      if (supervisor == supervisors_.end() || WIFSIGNALED(status)) orphans = true;
      if (supervisor != supervisors_.end()) supervisors_.erase(supervisor);
    }
    if (orphans) KillChildren(0, supervisors_.data(), supervisors_.size());
  }

  void ReceiveRequest() {
    SupervisorRequest request = {};
    int descriptors[kMaxStartDescriptors];
    std::size_t count = 0;
    const ssize_t length = ReceiveDescriptors(socket_, &request, sizeof request, descriptors, count);
    if (length < 0 && (errno == EINTR || errno == EAGAIN || errno == EMFILE || errno == ENOBUFS)) return;
    if (length <= 0) {
      connected_ = false;
      close(socket_);
      if (supervisors_.empty() && !HasChildren()) _exit(0);
      return;
    }
    if (length == sizeof request && request.magic == kSupervisorMagic && count == 1) StartSupervisor(descriptors[0]);
    for (std::size_t i = 0; i < count; ++i) close(descriptors[i]);
  }

  void StartSupervisor(int control) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(socket_);
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
  bool connected_ = true;
  std::vector<pid_t> supervisors_;
};

}  // namespace

void RunZygote(int socket) {
  CloseAllBut(socket);
  PrepareSignals();
  prctl(PR_SET_NAME, kHelperName);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  // The folder in which the process was started can be unmounted or removed while the helper lives.
  [[maybe_unused]] const int result = chdir("/");
  HelloMessage hello = {};
  if (recv(socket, &hello, sizeof hello, 0) != sizeof hello || hello.magic != kHelloMagic) _exit(127);
  if (hello.session == SessionKind::kOwn) {
    setsid();
    if (hello.autogroupNice > 0) SetAutogroupNice(hello.autogroupNice);
  }
  ZygoteLoop(socket).Run();
}

ssize_t ReceiveDescriptors(int socket, void* data, std::size_t size, int (&descriptors)[kMaxStartDescriptors],
                           std::size_t& count) {
  count = 0;
  iovec part{data, size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)];
  msghdr header = {};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  const ssize_t length = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
  if (length <= 0) return length;
  const cmsghdr* const attached = CMSG_FIRSTHDR(&header);
  if (attached != nullptr && attached->cmsg_type == SCM_RIGHTS) {
    count = (attached->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    std::memcpy(descriptors, CMSG_DATA(attached), count * sizeof(int));
  }
  return length;
}

void KillChildren(std::int32_t group, const std::int32_t* spared, std::size_t count) {
  const pid_t self = getpid();
  ProcessList list;
  for (pid_t pid = list.IsValid() ? list.Next() : 0; pid != 0; pid = list.Next()) {
    ProcessStat stat;
    // Only this process could have waited for its child, so the id can't have become somebody else's meanwhile.
    if (!ReadProcessStat(pid, stat) || stat.parent != self ||
        std::find(spared, spared + count, pid) != spared + count) {
      continue;
    }
    if (group != 0 && stat.group == group) kill(-group, SIGKILL);
    kill(pid, SIGKILL);
  }
}

}  // namespace kestrun::platform
