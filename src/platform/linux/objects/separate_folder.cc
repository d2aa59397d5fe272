#include "platform/linux/objects/separate_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

namespace {

using OpenFolder = std::unique_ptr<DIR, int (*)(DIR*)>;

bool IsNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

// The process in "-<process>.<number>" at the end of a name; 0 if there is none.
pid_t MakerOf(const std::string& name) {
  const std::size_t dash = name.rfind('-');
  const std::size_t dot = name.rfind('.');
  if (dash == std::string::npos || dot == std::string::npos || dot < dash) return 0;
  const std::string process = name.substr(dash + 1, dot - dash - 1);
  return IsNumber(process) && IsNumber(name.substr(dot + 1)) ? std::atoi(process.c_str()) : 0;
}

std::vector<std::string> ListEntries(int descriptor) {
  std::vector<std::string> names;
  const int own = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  const OpenFolder folder(own >= 0 ? fdopendir(own) : nullptr, &closedir);
  if (!folder) {
    if (own >= 0) close(own);
    return names;
  }
  while (const dirent* const entry = readdir(folder.get())) names.emplace_back(entry->d_name);
  return names;
}

// The maker's process must be gone and no process may hold the folder. The lock decides, since process ids are used
// again and differ between containers; the id spares most folders the attempt.
bool IsAbandoned(int folder, const std::string& name) {
  struct stat status {};
  const pid_t maker = MakerOf(name);
  return fstat(folder, &status) == 0 && status.st_uid == geteuid() && kill(maker, 0) != 0 && errno == ESRCH &&
         flock(folder, LOCK_EX | LOCK_NB) == 0;
}

// Removes the folder with its files. A folder of named objects contains no folders.
void RemoveIfAbandoned(int parent, const std::string& name) {
  const FileDescriptor folder(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder || !IsAbandoned(folder.get(), name)) return;
  for (const std::string& file : ListEntries(folder.get())) unlinkat(folder.get(), file.c_str(), 0);
  unlinkat(parent, name.c_str(), AT_REMOVEDIR);
}

}  // namespace

// The name has a clock's digits in it as well, because process ids are used again, and the folder of a killed process
// with the same id may still exist.
std::string NameSeparateFolder(const std::string& folder) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return folder + "-" + std::to_string(getpid()) + "." + std::to_string(now.tv_nsec);
}

bool IsSeparateFolder(const std::string& path) {
  return MakerOf(path) != 0;
}

bool HoldSeparateFolder(int descriptor) {
  struct stat status {};
  // EWOULDBLOCK alone means that the folder is being removed. On a file system without such locks IsAbandoned fails
  // too, so nothing is removed there.
  if (flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) return false;
  return fstat(descriptor, &status) != 0 || status.st_nlink > 0;
}

void RemoveAbandonedFolders(const std::string& folder) {
  const std::size_t slash = folder.rfind('/');
  if (slash == std::string::npos) return;
  const std::string prefix = folder.substr(slash + 1) + "-";
  const FileDescriptor parent(open(folder.substr(0, slash + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent) return;
  for (const std::string& name : ListEntries(parent.get())) {
    if (name.compare(0, prefix.size(), prefix) == 0 && MakerOf(name) != 0) RemoveIfAbandoned(parent.get(), name);
  }
}

}  // namespace kestrun::platform
