#include "platform/linux/objects/object_folder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>

#include "platform/api/base_api.h"
#include "platform/host.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/objects/separate_folder.h"

namespace kestrun::platform {

namespace {

constexpr int kOpenTries = 1000;

// SIGXFSZ is ignored, so that a file that would grow beyond the user's limit is an error of the call, as on a full
// disk, and does not end the process. Tools start with every signal at its default.
[[maybe_unused]] const bool kFilesTooLargeAreErrors = IgnoreSignal(SIGXFSZ);

// Fails for a symbolic link, which another user could have made to redirect the objects.
int OpenFolder(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Why the folder can't be used; empty if it can. `fd` is -1 if it could not be opened, with the cause in errno.
std::string FaultOf(const std::string& path, int fd) {
  const int error = errno;
  struct stat status {};
  if ((fd >= 0 ? fstat(fd, &status) : lstat(path.c_str(), &status)) != 0) {
    return std::strerror(fd >= 0 ? errno : error);
  }
  if (fd >= 0 && IsPrivateFolder(status, geteuid())) return "";
  if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(status.st_mode)) return "it is not a directory";
  if (status.st_uid != geteuid()) return "it belongs to another user";
  return fd < 0 ? std::strerror(error) : "its mode is not 0700: chmod 700 " + path;
}

class ObjectFolder {
 public:
  static ObjectFolder& Get() {
    static NeverDestroyed<ObjectFolder> folder;
    return folder.get();
  }

  // A descriptor of the folder, for the *at calls; it stays open even when the folder is made again. -1 with the last
  // error.
  //
  // Acquire pairs with the release in Open: a thread that sees the descriptor also sees the folder checked.
  int Descriptor() {
    const int fd = fd_.load(std::memory_order_acquire);
    return fd >= 0 ? fd : Open(-1);
  }

  // To be called after ENOENT for a file that was to be made, which means that the folder itself is gone. `stale` is
  // the descriptor that was used; if another thread has replaced it already, its new one is the answer.
  int OpenAgain(int stale) { return Open(stale); }

  std::string Path() {
    if (Descriptor() < 0) return "";
    std::lock_guard<std::mutex> guard(lock_);
    return path_;
  }

  void ReportUnusable(const std::string& cause) {
    const std::lock_guard guard(lock_);
    Refuse(cause);
  }

  bool IsReported() {
    const std::lock_guard guard(lock_);
    return reported_;
  }

  // Chooses the folder's path from the environment.
  static std::string Choose() {
    const char* given = std::getenv(kFolderVariable);
    if (given && *given) return given;
    const std::string shared = std::string(kUsualFolder) + std::to_string(geteuid());
    // An existing folder settles the choice, even one that will be refused: otherwise another user could make it first
    // and so send this user's processes to different folders.
    if (access(shared.c_str(), F_OK) == 0 || mkdir(shared.c_str(), 0700) == 0 || errno == EEXIST) return shared;
    const char* temporary = std::getenv("TMPDIR");
    return (temporary && *temporary ? std::string(temporary) : "/tmp") + shared.substr(shared.rfind('/'));
  }

 private:
  int Open(int stale) {
    const std::lock_guard guard(lock_);
    // Relaxed: only this function stores it, under the lock.
    const int current = fd_.load(std::memory_order_relaxed);
    if (current != stale) return current;
    if (path_.empty()) path_ = Choose();
    const int fd = OpenOrMake();
    const std::string fault = FaultOf(path_, fd);
    if (!fault.empty()) {
      if (fd >= 0) close(fd);
      return Refuse(fault);
    }
    // The old descriptor stays open, because another thread may be about to use it. Release: see Descriptor.
    fd_.store(fd, std::memory_order_release);
    return fd;
  }

  // -1 with errno. Between its making and its lock a separate folder (separate_folder.h) looks abandoned, and another
  // process may remove it; then it is made once more.
  int OpenOrMake() {
    int fd = -1;
    for (int tries = 0; tries < kOpenTries; ++tries) {
      fd = OpenFolder(path_);
      if (fd < 0 && (errno != ENOENT || (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST))) break;
      if (fd >= 0 && (!IsSeparateFolder(path_) || HoldSeparateFolder(fd))) break;
      if (fd >= 0) close(fd);
      fd = -1;
    }
    return fd;
  }

  int Refuse(const std::string& cause) {
    if (!reported_) {
      const std::string line = "KESTRUN: error: cannot use the folder " + path_ + " for named objects: " + cause + "\n";
      std::fputs(line.c_str(), stderr);
    }
    reported_ = true;
    SetLastError(ERROR_ACCESS_DENIED);
    return -1;
  }

  std::atomic<int> fd_{-1};
  std::mutex lock_;
  std::string path_;       // guarded by lock_
  bool reported_ = false;  // guarded by lock_
};

int OpenIn(int folder, const std::string& leaf, int flags) {
  return openat(folder, leaf.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
}

}  // namespace

bool SeparateNamedObjects() {
  return SetEnvironmentVariableA(kFolderVariable, NameSeparateFolder(ObjectFolder::Choose()).c_str()) != FALSE;
}

void RemoveAbandonedObjects() {
  RemoveAbandonedFolders(ObjectFolder::Choose());
}

std::string NamedObjectFolder() {
  return ObjectFolderPath();
}

bool AreNamedObjectsRefused() {
  return ObjectFolder::Get().IsReported();
}

int ObjectFolderDescriptor() {
  return ObjectFolder::Get().Descriptor();
}

FileDescriptor OpenObjectFile(const std::string& leaf, int flags) {
  int folder = ObjectFolder::Get().Descriptor();
  if (folder < 0) return FileDescriptor();
  int fd = OpenIn(folder, leaf, flags);
  if (fd < 0 && errno == ENOENT && (flags & O_CREAT)) {
    folder = ObjectFolder::Get().OpenAgain(folder);
    if (folder < 0) return FileDescriptor();
    fd = OpenIn(folder, leaf, flags);
  }
  if (fd < 0) FailInFolder(errno);
  return FileDescriptor(fd);
}

std::string ObjectFolderPath() {
  return ObjectFolder::Get().Path();
}

void ReportUnusableFolder(const std::string& cause) {
  ObjectFolder::Get().ReportUnusable(cause);
}

bool FailInFolder(int error) {
  const bool isShortage = error == ENOSPC || error == EFBIG || error == ENOMEM || error == EMFILE || error == ENFILE;
  if (isShortage) ReportUnusableFolder(std::strerror(error));
  SetLastError(Win32ErrorFromErrno(error));
  return false;
}

int ReserveSpace(int fd, std::uint64_t offset, std::uint64_t size) {
  int error;
  do {
    error = posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(size));
  } while (error == EINTR);
  return error;
}

void RemoveObjectFile(const std::string& leaf) {
  const int folder = ObjectFolder::Get().Descriptor();
  if (folder >= 0) unlinkat(folder, leaf.c_str(), 0);
}

}  // namespace kestrun::platform
