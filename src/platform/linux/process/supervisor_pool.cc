#include "platform/linux/process/supervisor_pool.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/linux/base/never_destroyed.h"

namespace kestrun::platform {
namespace {

// For each kind of session. More tools at once are rare, and an idle supervisor costs two processes.
constexpr std::size_t kMaxIdle = 32;
// A helper can be killed at any moment, by a user or for want of memory; a second and a third try get new helpers.
constexpr int kMaxAttempts = 3;

bool ReceiveReady(int control, Report& report) {
  ssize_t count = 0;
  do {
    count = recv(control, &report, sizeof report, MSG_WAITALL);
  } while (count < 0 && errno == EINTR);
  return count == sizeof report && report.kind == ReportKind::kReady;
}

// True if the socket is open and nothing is to be read from it. If the supervisor was killed, the socket has ended; if
// the process made for its next tool was killed, the supervisor exits and the socket ends as well.
bool IsSilent(int control) {
  char byte = 0;
  return recv(control, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

// False when the helpers died before they answered, so that it can be tried again; else `ready.error` tells.
bool StartNew(SessionKind session, SupervisorLink& supervisor, Report& ready) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    ready.error = errno;
    return true;
  }
  supervisor.session = session;
  supervisor.control = FileDescriptor(ends[0]);
  FileDescriptor supervisorEnd(ends[1]);
  supervisor.zygote = AskForSupervisor(session, supervisorEnd.get(), ready.error);
  if (!supervisor.zygote) return true;
  // Closed before the wait: otherwise this process's own copy would keep the socket open if the supervisor dies.
  supervisorEnd.Reset();
  return ReceiveReady(supervisor.control.get(), ready);
}

}  // namespace

SupervisorPool& SupervisorPool::Get() {
  static NeverDestroyed<SupervisorPool> pool;
  return pool.get();
}

int SupervisorPool::Acquire(SessionKind session, SupervisorLink& supervisor, Report& ready) {
  bool isAnswered = FindIdle(session, supervisor, ready);
  for (int attempt = 0; attempt < kMaxAttempts && !isAnswered; ++attempt) {
    isAnswered = StartNew(session, supervisor, ready);
  }
  return isAnswered ? ready.error : EAGAIN;
}

void SupervisorPool::Release(SupervisorLink supervisor) {
  const std::lock_guard lock(mutex_);
  std::vector<SupervisorLink>& idle = idle_[static_cast<std::size_t>(supervisor.session)];
  if (idle.size() < kMaxIdle) idle.push_back(std::move(supervisor));
}

void SupervisorPool::CloseIdle(SessionKind session) {
  std::vector<SupervisorLink> closed;
  const std::lock_guard lock(mutex_);
  closed.swap(idle_[static_cast<std::size_t>(session)]);
}

// False if no idle supervisor is left. Supervisors that can't take another tool are closed on the way: those that were
// killed, those without a living zygote (Zygote::IsAlive), and those that could not make a process.
bool SupervisorPool::FindIdle(SessionKind session, SupervisorLink& supervisor, Report& ready) {
  while ((supervisor = TakeIdle(session)).control) {
    const int control = supervisor.control.get();
    if (supervisor.zygote->IsAlive() && ReceiveReady(control, ready) && ready.error == 0 && IsSilent(control)) {
      return true;
    }
  }
  return false;
}

// Takes the supervisor that became idle last, whose memory is most likely still in the caches. The link has no socket
// if there is none.
SupervisorLink SupervisorPool::TakeIdle(SessionKind session) {
  const std::lock_guard lock(mutex_);
  std::vector<SupervisorLink>& idle = idle_[static_cast<std::size_t>(session)];
  if (idle.empty()) return {};
  SupervisorLink taken = std::move(idle.back());
  idle.pop_back();
  return taken;
}

}  // namespace kestrun::platform
