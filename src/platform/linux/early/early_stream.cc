// local_stream.cc for the plain case, without the C library.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <cstddef>

#include "platform/early_start.h"
#include "platform/linux/early/system_calls.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/sockets/local_names.h"

namespace kestrun::platform::early {

namespace {

constexpr int kStandardStreams = 3;

void AppendNumber(std::uint32_t number, Text& text) {
  if (number >= 10) AppendNumber(number / 10, text);
  text += static_cast<char>('0' + number % 10);
}

void AppendObjectFolder(const Start& start, Text& path) {
  const char* const given = FindVariable(start, kFolderVariable);
  if (given != nullptr && *given != '\0') {
    path += View(given);
  } else {
    path += View(kUsualFolder);
    AppendNumber(start.user, path);
  }
}

// A folder of one build's own (separate_folder.h) is locked by the processes that use it. Its name ends in a full stop
// and a number.
bool MayBeSeparate(std::string_view path) {
  while (!path.empty() && path.back() >= '0' && path.back() <= '9') path.remove_suffix(1);
  return !path.empty() && path.back() == '.';
}

bool IsUsable(const char* path, std::uint32_t user) {
  struct stat status;
  return Call(SYS_newfstatat, AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0 && IsPrivateFolder(status, user);
}

// False in all that is not plain.
bool MakeAddress(const Start& start, std::string_view name, sockaddr_un& address) {
  address.sun_family = AF_UNIX;
  Text path(address.sun_path);
  AppendObjectFolder(start, path);
  const std::size_t folderSize = path.View().size();
  path += '\0';
  if (path.IsCut() || MayBeSeparate({address.sun_path, folderSize}) || !IsUsable(address.sun_path, start.user)) {
    return false;
  }
  Text rest(address.sun_path + folderSize, sizeof address.sun_path - folderSize);
  rest += '/';
  rest += kPlainStreamPrefix;
  rest += name;
  rest += '\0';
  return !rest.IsCut() && IsPlainStreamName(name);
}

bool IsOfUser(int socket, std::uint32_t user) {
  ucred peer;
  socklen_t size = sizeof peer;
  return Call(SYS_getsockopt, socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == user;
}

}  // namespace

int ConnectLocalStream(const Start& start, std::string_view name) {
  sockaddr_un address;
  if (!MakeAddress(start, name, address)) return -1;
  const int stream = static_cast<int>(Call(SYS_socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (stream < 0) return -1;
  // A new descriptor is the lowest free one, so below 3 a standard stream is closed.
  if (stream >= kStandardStreams && CallAgain(SYS_connect, stream, &address, sizeof address) == 0 &&
      IsOfUser(stream, start.user)) {
    return stream;
  }
  Close(stream);
  return -1;
}

bool Send(int stream, std::string_view data) {
  const long size = static_cast<long>(data.size());
  return CallAgain(SYS_sendto, stream, data.data(), size, MSG_NOSIGNAL) == size;
}

std::size_t Receive(int stream, void* data, std::size_t size) {
  const long count = CallAgain(SYS_recvfrom, stream, data, size, 0);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void KeepOpen(int stream) {
  Call(SYS_fcntl, stream, F_SETFD, 0);
}

void Close(int stream) {
  Call(SYS_close, stream);
}

}  // namespace kestrun::platform::early
