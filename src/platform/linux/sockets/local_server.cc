// The server of local_stream.h: one epoll over the listening socket, the connections of clients that wait for their
// answer, and the pidfds of clients, which become readable when their processes end.
//
// The kernel tells the process id of the peer (SO_PEERCRED), and the server opens a pidfd by that id. Between the two
// the client may end and its id be used again; therefore the server looks at the connection once more after it has the
// pidfd. If the client's end is still open then, the client lived, and the id was its own.
//
// Without a pidfd (before Linux 5.3, or for a client in a process namespace that this one does not see) the end of the
// connection counts as the end of the client, which has to keep its end open.
//
// A client passes through these states:
//
//   accepted     has a connection, and has sent nothing yet
//   client       has sent its first message: OnClient was called, and OnGone will be
//   answered     has its last bytes; with a pidfd its connection is closed, and only its process is watched
//   gone         its process has ended, or it hung up before it was answered; OnGone, and its number is forgotten
//
// Locks: `lock_` guards the table against Answer, which comes from other threads. The handler is called without it.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_end.h"
#include "platform/linux/objects/stale_sockets.h"
#include "platform/linux/sockets/local_names.h"
#include "platform/local_stream.h"

namespace kestrun::platform {

namespace {

// The keys of events: 0 and 1 are the server's own; a client's connection has twice the client's number, and its
// process that plus one. Clients are numbered from 1, so no key stands for two things.
constexpr std::uint64_t kListenerKey = 0;
constexpr std::uint64_t kStopKey = 1;

constexpr int kEventsAtOnce = 64;
// When descriptors run out, connections that have sent nothing for this long are closed.
constexpr time_t kSilenceSeconds = 5;
// When descriptors have run out, the listener is not watched for this long, unless an event comes earlier.
constexpr int kPauseMs = 100;

time_t Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

struct Connection {
  FileDescriptor socket;
  FileDescriptor process;  // none before the first message, and where the system has none
  std::uint32_t processId = 0;
  time_t acceptedAt = 0;
  bool isClient = false;  // its first message has come
};

class EpollServer final : public LocalServer {
 public:
  EpollServer(FileDescriptor listener, FileDescriptor epoll, FileDescriptor stop, std::string path)
      : listener_(std::move(listener)), epoll_(std::move(epoll)), stop_(std::move(stop)), path_(std::move(path)) {
    Watch(listener_.get(), kListenerKey);
    Watch(stop_.get(), kStopKey);
  }

  // Removes the socket file, unless a later server has taken over the name: the file has another inode then.
  ~EpollServer() override {
    struct stat there = {};
    if (stat(path_.c_str(), &there) == 0 && inode_ == there.st_ino) unlink(path_.c_str());
  }

  void RememberFile() {
    struct stat there = {};
    if (stat(path_.c_str(), &there) == 0) inode_ = there.st_ino;
  }

  void Run(Handler& handler) override {
    epoll_event events[kEventsAtOnce];
    bool isStopped = false;
    while (!isStopped) {
      // The pause ends after its time, or earlier with any event: a client that goes frees a descriptor.
      const int count = epoll_wait(epoll_.get(), events, kEventsAtOnce, isPaused_ ? kPauseMs : -1);
      if (count == 0 || isPaused_) Resume();
      for (int i = 0; i < count && !isStopped; ++i) {
        const std::uint64_t key = events[i].data.u64;
        isStopped = key == kStopKey;
        if (key == kListenerKey) {
          AcceptAll(handler);
        } else if (!isStopped) {
          Serve(key / 2, key % 2 != 0, handler);
        }
      }
    }
  }

  void Stop() override { eventfd_write(stop_.get(), 1); }

  void Answer(Client client, const void* data, std::size_t size) override {
    const std::lock_guard lock(lock_);
    const auto found = connections_.find(client);
    if (found == connections_.end()) return;
    Connection& connection = found->second;
    [[maybe_unused]] const ssize_t sent = send(connection.socket.get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    // The client can still read what was sent before the socket is closed. Without a pidfd the socket stays open,
    // because it alone tells of the client's end.
    if (connection.process) connection.socket.Reset();
  }

 private:
  bool Watch(int descriptor, std::uint64_t key) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = key;
    return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
  }

  void AcceptAll(Handler& handler) {
    for (;;) {
      FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!socket) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno != EAGAIN) Pause();
        return;
      }
      ucred peer = {};
      socklen_t size = sizeof peer;
      if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != geteuid()) continue;
      const Client client = ++lastClient_;
      {
        const std::lock_guard lock(lock_);
        Connection& connection = connections_[client];
        connection.socket = std::move(socket);
        connection.processId = static_cast<std::uint32_t>(peer.pid);
        connection.acceptedAt = Now();
      }
      // Most clients have sent their message by now, which saves a turn of the loop.
      if (!ReceiveFirst(client, handler) || !WatchConnection(client)) Drop(client, handler);
    }
  }

  // Under the lock, because another thread may answer this client at this moment. A client that was answered already
  // has no connection any more.
  bool WatchConnection(Client client) {
    const std::lock_guard lock(lock_);
    const Connection& connection = connections_.find(client)->second;
    return !connection.socket || Watch(connection.socket.get(), client * 2);
  }

  // False if the connection is to be dropped.
  bool ReceiveFirst(Client client, Handler& handler) {
    Connection& connection = connections_.find(client)->second;  // only this thread adds and removes
    char message[kMaxMessage];
    const ssize_t count = recv(connection.socket.get(), message, sizeof message, MSG_DONTWAIT);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    FileDescriptor process = OpenProcess(connection.processId);
    // The second look at the connection; see the top of this file.
    if (process && (HasEnded(connection.socket.get()) || !Watch(process.get(), client * 2 + 1))) return false;
    const bool seesEnd = static_cast<bool>(process);
    {
      const std::lock_guard lock(lock_);
      connection.process = std::move(process);
      connection.isClient = true;
    }
    if (handler.OnClient(client, connection.processId, seesEnd, message, static_cast<std::size_t>(count))) return true;
    const std::lock_guard lock(lock_);
    connection.isClient = false;
    return false;
  }

  static FileDescriptor OpenProcess(std::uint32_t processId) {
#ifdef SYS_pidfd_open
    if (processId != 0) return FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, processId, 0)));
#endif
    return FileDescriptor();
  }

  static bool HasEnded(int socket) {
    char byte = 0;
    return IsEnd(recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT));
  }

  // Tells from the result of a recv that does not wait, and its errno, whether the other end has gone.
  static bool IsEnd(ssize_t count) {
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
  }

  void Serve(Client client, bool isProcess, Handler& handler) {
    const auto found = connections_.find(client);
    if (found == connections_.end()) return;
    if (isProcess) return Drop(client, handler);
    Connection& connection = found->second;
    if (!connection.isClient) {
      if (!ReceiveFirst(client, handler)) Drop(client, handler);
      return;
    }
    if (IsHungUp(client)) Drop(client, handler);
  }

  // Reads and drops what a client sends after its first message. A client that has hung up without an answer is gone,
  // even if its process goes on.
  bool IsHungUp(Client client) {
    const std::lock_guard lock(lock_);
    const Connection& connection = connections_.find(client)->second;
    if (!connection.socket) return false;
    char dropped[kMaxMessage];
    return IsEnd(recv(connection.socket.get(), dropped, sizeof dropped, MSG_DONTWAIT));
  }

  void Drop(Client client, Handler& handler) {
    Connection gone;
    {
      const std::lock_guard lock(lock_);
      const auto found = connections_.find(client);
      gone = std::move(found->second);
      // Unwatched explicitly: closing would not end the watch if another process had a copy of the descriptor.
      if (gone.process) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, gone.process.get(), nullptr);
      connections_.erase(found);
    }
    gone.socket.Reset();
    if (gone.isClient) handler.OnGone(client, [&gone] { return ReadProcessEnd(gone.processId, gone.process.get()); });
  }

  // Stops watching the listener, since accepting would fail again at once and the loop would spin. Connections that do
  // not send are closed, which may free descriptors.
  void Pause() {
    if (isPaused_) return;
    isPaused_ = true;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    const std::lock_guard lock(lock_);
    std::erase_if(connections_, [now = Now()](const auto& entry) {
      return !entry.second.isClient && now - entry.second.acceptedAt >= kSilenceSeconds;
    });
  }

  void Resume() {
    if (isPaused_) isPaused_ = !Watch(listener_.get(), kListenerKey);
  }

  const FileDescriptor listener_;
  const FileDescriptor epoll_;
  const FileDescriptor stop_;
  const std::string path_;
  ino_t inode_ = 0;

  // The thread of Run.
  Client lastClient_ = 0;
  bool isPaused_ = false;

  std::mutex lock_;
  std::map<Client, Connection>
      connections_;  // changed by the thread of Run alone, under lock_, which others take to read
};

// Binds and listens under a draft name and then renames the file, so that a client never finds a socket that refuses
// it. The rename also takes over the name of a server that has died.
FileDescriptor ListenUnder(const std::string& name, std::string& path) {
  const LocalName address(name);
  const LocalName draft(name, kDraftMark + std::to_string(getpid()));
  if (!address.IsValid() || !draft.IsValid()) {
    errno = ENAMETOOLONG;
    return FileDescriptor();
  }
  path = address.Path();
  FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener) return listener;
  unlink(draft.Path().c_str());
  if (bind(listener.get(), draft.Get(), draft.Size()) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
      rename(draft.Path().c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(draft.Path().c_str());
    listener.Reset();
    errno = error;
  }
  return listener;
}

}  // namespace

std::unique_ptr<LocalServer> LocalServer::Listen(const std::string& name, std::string& error) {
  std::string path;
  FileDescriptor listener = ListenUnder(name, path);
  FileDescriptor epoll(listener ? epoll_create1(EPOLL_CLOEXEC) : -1);
  FileDescriptor stop(epoll ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1);
  if (!stop) {
    error = (path.empty() ? name : path) + ": " + std::strerror(errno);
    return nullptr;
  }
  auto server = std::make_unique<EpollServer>(std::move(listener), std::move(epoll), std::move(stop), path);
  server->RememberFile();
  return server;
}

}  // namespace kestrun::platform
