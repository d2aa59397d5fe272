// Local streams as Unix-domain sockets in the folder of the named objects.
#include "platform/local_stream.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/sockets/local_names.h"

namespace kestrun::platform {

namespace {

class SocketStream final : public LocalStream {
 public:
  explicit SocketStream(FileDescriptor socket) : socket_(std::move(socket)) {}

  bool Send(const void* data, std::size_t size) override {
    ssize_t sent = 0;
    do {
      sent = send(socket_.get(), data, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    // A new connection has room for a whole message, so a short count means that the server has gone.
    return sent == static_cast<ssize_t>(size);
  }

  // Without close-on-exec, the descriptor stays open in the program that this process becomes.
  void KeepOpen() override { fcntl(socket_.get(), F_SETFD, 0); }

  std::size_t Receive(void* data, std::size_t size) override {
    ssize_t count = 0;
    do {
      count = recv(socket_.get(), data, size, 0);
    } while (count < 0 && errno == EINTR);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }

 private:
  const FileDescriptor socket_;
};

// The folder is closed to other users, and this is the second check: a client sends its request to no other user's
// process.
bool IsOfThisUser(int socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

}  // namespace

const bool kHasLocalStreams = true;

std::unique_ptr<LocalStream> LocalStream::Connect(const std::string& name) {
  const LocalName address(name);
  if (!address.IsValid()) return nullptr;
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return nullptr;
  int result = 0;
  do {
    result = connect(socket.get(), address.Get(), address.Size());
  } while (result != 0 && errno == EINTR);
  if (result != 0 || !IsOfThisUser(socket.get())) return nullptr;
  return std::make_unique<SocketStream>(std::move(socket));
}

}  // namespace kestrun::platform
