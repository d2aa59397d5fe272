#include "platform/linux/objects/stale_sockets.h"

#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

namespace {

// The inode of a socket file; 0 for anything else.
ino_t SocketInode(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

// A connection attempt is the only way to learn whether a process listens on a socket file. It does not block, and a
// living server sees at most a client that hangs up at once.
bool IsRefused(const std::string& path) {
  sockaddr_un address = {};
  if (path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  const FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return client && connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
         errno == ECONNREFUSED;
}

bool IsStale(const std::string& path) {
  const std::size_t mark = path.rfind(kDraftMark);
  if (mark == std::string::npos || path.find('/', mark) != std::string::npos) return IsRefused(path);
  const int process = std::atoi(path.c_str() + mark + 1);
  return process > 0 && kill(process, 0) != 0 && errno == ESRCH;
}

}  // namespace

void RemoveStaleSockets(const std::string& folder) {
  const auto close = [](DIR* directory) { closedir(directory); };
  const std::unique_ptr<DIR, decltype(close)> directory(opendir(folder.c_str()), close);
  if (!directory) return;
  while (const dirent* const entry = readdir(directory.get())) {
    const std::string path = folder + "/" + entry->d_name;
    const ino_t inode = SocketInode(path);
    // The inode is compared again, because a new server may have taken the name over meanwhile.
    if (inode != 0 && IsStale(path) && SocketInode(path) == inode) unlink(path.c_str());
  }
}

}  // namespace kestrun::platform
