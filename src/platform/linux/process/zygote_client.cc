// How a process starts its zygotes and asks them for supervisors.
//
// The layer does not fork in the process itself: a master has many threads and much memory, so a fork would copy page
// tables for milliseconds and might inherit a lock of the heap that no thread in the child ever releases. posix_spawn
// alone is no way out, because a tool needs a parent that adopts and ends what it leaves behind. So a small helper is
// spawned once, and it forks.
#include "platform/linux/process/zygote_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "platform/linux/base/descriptor_passing.h"
#include "platform/linux/base/environment.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/helper/spawn_settings.h"
#include "platform/linux/helper/zygote.h"

namespace kestrun::platform {
namespace {

// True if the descriptor is one end of a socket pair that the parent process made for this helper. It keeps a program
// that was started with the helper's arguments by mistake from behaving as a helper.
bool IsHelperSocket(int descriptor) {
  int type = 0;
  socklen_t length = sizeof type;
  if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_SEQPACKET) return false;
  ucred peer = {};
  length = sizeof peer;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == geteuid() && peer.pid == getppid();
}

// Every program that can start processes is its own helper, so that no second file has to be installed and found:
// started with these arguments and this socket it never comes to main. The function stands in this file so that every
// program that links CreateProcessA contains it. Its priority, 101, is the first that programs may use: it runs before
// the program's own static objects are made.
__attribute__((constructor(101))) void BecomeHelperIfAsked(int argc, char** argv, char**) {
  if (argc != 2 || std::strcmp(argv[0], kHelperName) != 0 || std::strcmp(argv[1], kHelperArgument) != 0) return;
  if (!IsHelperSocket(kHelperSocket)) _exit(127);
  RunZygote(kHelperSocket);
}

int SpawnHelper(int socket, pid_t& pid) {
  SpawnSettings settings;
  // The socket is moved first, because it may have one of the three numbers that are replaced next.
  posix_spawn_file_actions_adddup2(&settings.actions, socket, kHelperSocket);
  for (int i = 0; i < 3; ++i) posix_spawn_file_actions_addopen(&settings.actions, i, "/dev/null", O_RDWR, 0);
  // The helper starts with no signal blocked and every signal at its default, whatever this process has set.
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&settings.attributes, &none);
  posix_spawnattr_setsigdefault(&settings.attributes, &all);
  posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  char name[sizeof kHelperName];
  char argument[sizeof kHelperArgument];
  std::memcpy(name, kHelperName, sizeof name);
  std::memcpy(argument, kHelperArgument, sizeof argument);
  char* const arguments[] = {name, argument, nullptr};
  // `environ` is read by posix_spawn, and must not be changed by another thread meanwhile.
  const EnvironmentLock environment;
  return posix_spawn(&pid, "/proc/self/exe", &settings.actions, &settings.attributes, arguments, environ);
}

class Connection : public Zygote {
 public:
  Connection(FileDescriptor socket, pid_t pid) : socket_(std::move(socket)), pid_(pid) {}
  // Collects a zygote that has ended; one that still runs becomes a zombie only until this process ends.
  ~Connection() override { waitpid(pid_, nullptr, WNOHANG); }

  static std::shared_ptr<Connection> Start(SessionKind session, int& error) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      error = errno;
      return nullptr;
    }
    FileDescriptor own(ends[0]);
    const FileDescriptor theirs(ends[1]);
    const HelloMessage hello{kHelloMagic, session};
    pid_t pid = -1;
    error = SpawnHelper(theirs.get(), pid);
    if (error != 0) return nullptr;
    auto connection = std::make_shared<Connection>(std::move(own), pid);
    if (send(connection->socket_.get(), &hello, sizeof hello, MSG_NOSIGNAL) == sizeof hello) return connection;
    error = errno;
    return nullptr;
  }

  bool IsAlive() const override {
    pollfd state{socket_.get(), 0, 0};
    return poll(&state, 1, 0) == 0;
  }

  // Ends the requests, so that the zygote exits when nothing is left below it, and waits for that. No request may
  // follow.
  void AwaitEnd(int limitMs) {
    shutdown(socket_.get(), SHUT_RDWR);
#ifdef SYS_pidfd_open
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    pollfd end{process.get(), POLLIN, 0};
    if (process) poll(&end, 1, limitMs);
#endif
    waitpid(pid_, nullptr, WNOHANG);
  }

  // 0, or an errno: EPIPE or ECONNRESET when the zygote is gone.
  int AskForSupervisor(int control) {
    const SupervisorRequest request{kSupervisorMagic};
    return SendDescriptors(socket_.get(), &request, sizeof request, &control, 1) < 0 ? errno : 0;
  }

 private:
  const FileDescriptor socket_;
  const pid_t pid_;
};

class Zygotes {
 public:
  std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int control, int& error) {
    std::shared_ptr<Connection> failed;
    for (int attempt = 0; attempt < 3; ++attempt) {
      const std::shared_ptr<Connection> connection = Get(session, failed, error);
      if (!connection) return nullptr;
      error = connection->AskForSupervisor(control);
      if (error == 0) return connection;
      // The zygote was killed: the next turn starts a new one.
      if (error != EPIPE && error != ECONNRESET) return nullptr;
      failed = connection;
    }
    return nullptr;
  }

  void End(SessionKind session, int limitMs) {
    std::shared_ptr<Connection> connection;
    {
      const std::lock_guard lock(mutex_);
      connection.swap(connections_[static_cast<std::size_t>(session)]);
    }
    if (connection) connection->AwaitEnd(limitMs);
  }

 private:
  // The present connection; a new one if there is none or if it is `failed`.
  std::shared_ptr<Connection> Get(SessionKind session, const std::shared_ptr<Connection>& failed, int& error) {
    const std::lock_guard lock(mutex_);
    std::shared_ptr<Connection>& current = connections_[static_cast<std::size_t>(session)];
    if (!current || current == failed) current = Connection::Start(session, error);
    return current;
  }

  std::mutex mutex_;
  std::shared_ptr<Connection> connections_[2];  // guarded by mutex_; by session kind
};

Zygotes& TheZygotes() {
  static NeverDestroyed<Zygotes> zygotes;
  return zygotes.get();
}

}  // namespace

std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int control, int& error) {
  return TheZygotes().AskForSupervisor(session, control, error);
}

void EndZygote(SessionKind session, int limitMs) {
  TheZygotes().End(session, limitMs);
}

}  // namespace kestrun::platform
