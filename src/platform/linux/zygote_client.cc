#include "platform/linux/zygote_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "platform/linux/environment.h"
#include "platform/linux/file_object.h"
#include "platform/linux/never_destroyed.h"
#include "platform/linux/spawn_settings.h"

namespace kestrun::platform {
namespace {

// True if the helper's descriptor is one end of a socket pair that the parent process made for it. Nobody comes by
// such a descriptor by accident.
bool IsHelperSocket(int descriptor) {
  int type = 0;
  socklen_t length = sizeof type;
  if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_SEQPACKET) return false;
  ucred peer = {};
  length = sizeof peer;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == geteuid() && peer.pid == getppid();
}

// Every program that can start processes is its own helper: started with these arguments and this socket it never gets
// to main. This stands here, where whoever links CreateProcessA links it too, and runs before the program's own static
// objects are made.
__attribute__((constructor(101))) void BecomeHelperIfAsked(int argc, char** argv, char**) {
  if (argc != 2 || std::strcmp(argv[0], kHelperName) != 0 || std::strcmp(argv[1], kHelperArgument) != 0) return;
  if (!IsHelperSocket(kHelperSocket)) _exit(127);
  RunZygote(kHelperSocket);
}

int SpawnHelper(int socket, pid_t& pid) {
  SpawnSettings settings;
  // The socket first: it may be one of the three that are replaced behind it.
  posix_spawn_file_actions_adddup2(&settings.actions, socket, kHelperSocket);
  for (int i = 0; i < 3; ++i) posix_spawn_file_actions_addopen(&settings.actions, i, "/dev/null", O_RDWR, 0);
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
  const EnvironmentLock environment;
  return posix_spawn(&pid, "/proc/self/exe", &settings.actions, &settings.attributes, arguments, environ);
}

class Connection : public Zygote {
 public:
  Connection(FileDescriptor socket, pid_t pid) : socket_(std::move(socket)), pid_(pid) {}
  ~Connection() override { waitpid(pid_, nullptr, WNOHANG); }

  static std::shared_ptr<Connection> Start(SessionKind session, int autogroupNice, int& error) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      error = errno;
      return nullptr;
    }
    FileDescriptor own(ends[0]);
    const FileDescriptor theirs(ends[1]);
    const HelloMessage hello{kHelloMagic, session, autogroupNice};
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
  std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int autogroupNice, int control, int& error) {
    std::shared_ptr<Connection> failed;
    for (int attempt = 0; attempt < 3; ++attempt) {
      const std::shared_ptr<Connection> connection = Get(session, autogroupNice, failed, error);
      if (!connection) return nullptr;
      error = connection->AskForSupervisor(control);
      if (error == 0) return connection;
      if (error != EPIPE && error != ECONNRESET) return nullptr;
      failed = connection;
    }
    return nullptr;
  }

 private:
  // The present connection, or a new one if that is the one that failed.
  std::shared_ptr<Connection> Get(SessionKind session, int autogroupNice, const std::shared_ptr<Connection>& failed,
                                  int& error) {
    const std::lock_guard lock(mutex_);
    std::shared_ptr<Connection>& current = connections_[static_cast<std::size_t>(session)];
    if (!current || current == failed) current = Connection::Start(session, autogroupNice, error);
    return current;
  }

  std::mutex mutex_;
  std::shared_ptr<Connection> connections_[2];  // guarded by mutex_; by session kind
};

}  // namespace

ssize_t SendDescriptors(int socket, const void* data, std::size_t size, const int* descriptors, std::size_t count) {
  iovec part{const_cast<void*>(data), size};
  alignas(cmsghdr) char control[CMSG_SPACE(kMaxStartDescriptors * sizeof(int))] = {};
  msghdr header = {};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* const attached = CMSG_FIRSTHDR(&header);
  attached->cmsg_level = SOL_SOCKET;
  attached->cmsg_type = SCM_RIGHTS;
  attached->cmsg_len = CMSG_LEN(count * sizeof(int));
  std::memcpy(CMSG_DATA(attached), descriptors, count * sizeof(int));
  ssize_t sent = 0;
  do {
    sent = sendmsg(socket, &header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int autogroupNice, int control, int& error) {
  static NeverDestroyed<Zygotes> zygotes;
  return zygotes.get().AskForSupervisor(session, autogroupNice, control, error);
}

}  // namespace kestrun::platform
