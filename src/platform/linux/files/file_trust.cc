#include "platform/linux/files/file_trust.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/host.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/files/file_names.h"

namespace kestrun::platform {

// A bit that none of the flags of file_api.h has.
const DWORD kRefuseFilesOfOthers = 0x10000;

bool IsTrusted(const struct stat& info) {
  return info.st_uid == geteuid() || info.st_uid == 0;
}

bool IsNoFile(const struct stat& info) {
  return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || S_ISBLK(info.st_mode);
}

namespace {

// Opens a name without following a symbolic link of another user. A link of this user or of root is followed: in a
// folder whose sticky bit is set, such as /tmp, other users can't replace it between the check and the opening.
int OpenTrustedName(const std::string& name, int flags) {
  const int opened = open(name.c_str(), flags | O_NOFOLLOW, 0600);
  if (opened >= 0 || errno != ELOOP) return opened;
  struct stat link;
  if (lstat(name.c_str(), &link) == 0 && IsTrusted(link)) return open(name.c_str(), flags, 0600);
  errno = EACCES;
  return -1;
}

}  // namespace

FileDescriptor OpenFileOnly(const std::string& name, int flags, bool mustBeTrusted) {
  // Opening a FIFO blocks until its other end is opened; with O_NONBLOCK it does not. The flag is cleared again below.
  const int waitless = flags | O_NONBLOCK;
  FileDescriptor file(mustBeTrusted ? OpenTrustedName(name, waitless) : open(name.c_str(), waitless, 0600));
  if (!file) return file;
  struct stat info;
  if (fstat(file.get(), &info) != 0 || IsNoFile(info) ||
      (mustBeTrusted && !IsTrusted(info) && !S_ISCHR(info.st_mode))) {
    errno = EACCES;
    return FileDescriptor();
  }
  fcntl(file.get(), F_SETFL, fcntl(file.get(), F_GETFL) & ~O_NONBLOCK);
  return file;
}

std::FILE* OpenRegularFile(const std::string& name) {
  FileDescriptor file = OpenFileOnly(SystemName(name), O_RDONLY | O_CLOEXEC | O_NOCTTY, false);
  std::FILE* const stream = file ? fdopen(file.get(), "r") : nullptr;
  if (stream != nullptr) file.Release();
  return stream;
}

std::string WhyNoFile(const std::string& name) {
  struct stat info;
  if (stat(SystemName(name).c_str(), &info) != 0) return "";
  if (IsNoFile(info)) return "it is no regular file";
  const FileDescriptor file(open(SystemName(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return !file && (errno == EMFILE || errno == ENFILE) ? std::strerror(errno) : "";
}

std::string WhyOfOthers(const std::string& name) {
  std::string file = SystemName(name);
  while (file.size() > 1 && file.back() == '/') file.pop_back();
  struct stat info;
  if (lstat(file.c_str(), &info) != 0) return "";
  if (!IsTrusted(info) && S_ISLNK(info.st_mode)) return "it is a symbolic link of another user";
  if (stat(file.c_str(), &info) != 0 || IsTrusted(info) || S_ISCHR(info.st_mode)) return "";
  return "it belongs to another user";
}

}  // namespace kestrun::platform
