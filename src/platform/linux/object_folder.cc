#include "platform/linux/object_folder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>

#include "platform/linux/base_api.h"
#include "platform/linux/never_destroyed.h"
#include "platform/linux/object_table.h"

namespace kestrun::platform {

namespace {

constexpr const char* kFolderVariable = "KESTRUN_OBJECT_DIR";
constexpr const char* kSweepStamp = ".sweep";
constexpr time_t kSweepIntervalSeconds = 60;

// A file that would grow beyond the user's limit is an error of the call, as on a full disk, and does not end the
// process. Tools start with every signal at its default.
[[maybe_unused]] const auto kFilesTooLargeAreErrors = signal(SIGXFSZ, SIG_IGN);

// It is never followed through a link.
int OpenFolder(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Why a folder can't serve, be it that it could not be opened; empty if it can.
std::string FaultOf(const std::string& path, int fd) {
  const int error = errno;
  struct stat status {};
  if ((fd >= 0 ? fstat(fd, &status) : lstat(path.c_str(), &status)) != 0) return std::strerror(errno);
  if (S_ISLNK(status.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(status.st_mode)) return "it is not a directory";
  if (status.st_uid != geteuid()) return "it belongs to another user";
  if (fd < 0) return std::strerror(error);
  if ((status.st_mode & 0777) != 0700) return "its mode is not 0700";
  return "";
}

class ObjectFolder {
 public:
  static ObjectFolder& Get() {
    static NeverDestroyed<ObjectFolder> folder;
    return folder.get();
  }

  // A descriptor of the folder, for the *at calls; it stays open when the folder is made again. -1 with the last error.
  int Descriptor() {
    const int fd = fd_.load(std::memory_order_acquire);
    return fd >= 0 ? fd : Open(-1);
  }

  // After ENOENT for a file that was to be made: the folder itself may be gone. `stale` is the descriptor used.
  int OpenAgain(int stale) { return Open(stale); }

  void ReportUnusable(const std::string& cause) {
    std::lock_guard<std::mutex> guard(lock_);
    Refuse(cause);
  }

 private:
  int Open(int stale) {
    std::lock_guard<std::mutex> guard(lock_);
    const int current = fd_.load(std::memory_order_relaxed);
    if (current != stale) return current;
    if (path_.empty()) path_ = Choose();
    int fd = OpenFolder(path_);
    if (fd < 0 && errno == ENOENT) {
      if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) return Refuse(std::strerror(errno));
      fd = OpenFolder(path_);
    }
    const std::string fault = FaultOf(path_, fd);
    if (!fault.empty()) {
      if (fd >= 0) close(fd);
      return Refuse(fault);
    }
    // The old descriptor stays open: another thread may be about to use it.
    fd_.store(fd, std::memory_order_release);
    return fd;
  }

  static std::string Choose() {
    const char* given = std::getenv(kFolderVariable);
    if (given && *given) return given;
    const std::string leaf = "/kestrun-" + std::to_string(geteuid());
    const std::string shared = "/dev/shm" + leaf;
    // An existing folder settles it, even one that will be refused: it must not be possible to push a user aside.
    if (access(shared.c_str(), F_OK) == 0 || mkdir(shared.c_str(), 0700) == 0 || errno == EEXIST) return shared;
    const char* temporary = std::getenv("TMPDIR");
    return (temporary && *temporary ? std::string(temporary) : "/tmp") + leaf;
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

// True for the one process that is to sweep now.
bool SweepIsDue(int folder) {
  struct stat status {};
  const bool stamped = fstatat(folder, kSweepStamp, &status, AT_SYMLINK_NOFOLLOW) == 0;
  // The coarse clock is the one that file times are taken from.
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  // A stamp of the future is one from before the clock was set back.
  const time_t age = now.tv_sec - status.st_mtim.tv_sec;
  if (stamped && age >= 0 && age < kSweepIntervalSeconds) return false;
  FileDescriptor stamp(OpenIn(folder, kSweepStamp, O_CREAT));
  return stamp && futimens(stamp.get(), nullptr) == 0;
}

}  // namespace

FileDescriptor OpenObjectFile(const std::string& leaf, int flags) {
  int folder = ObjectFolder::Get().Descriptor();
  if (folder < 0) return FileDescriptor();
  int fd = OpenIn(folder, leaf, flags);
  if (fd < 0 && errno == ENOENT && (flags & O_CREAT)) {
    folder = ObjectFolder::Get().OpenAgain(folder);
    if (folder < 0) return FileDescriptor();
    fd = OpenIn(folder, leaf, flags);
  }
  if (fd < 0) SetLastError(Win32ErrorFromErrno(errno));
  return FileDescriptor(fd);
}

void ReportUnusableFolder(const std::string& cause) {
  ObjectFolder::Get().ReportUnusable(cause);
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

void SweepNowAndThen() {
  static std::atomic<time_t> lastLook{-kSweepIntervalSeconds};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  time_t last = lastLook.load(std::memory_order_relaxed);
  if (now.tv_sec - last < kSweepIntervalSeconds || !lastLook.compare_exchange_strong(last, now.tv_sec)) return;
  const int folder = ObjectFolder::Get().Descriptor();
  if (folder < 0 || !SweepIsDue(folder)) return;
  if (ObjectTable* const table = ObjectTable::Current()) table->Sweep();
}

}  // namespace kestrun::platform
