#include "platform/linux/objects/lock_holder.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/linux/base/process_stat.h"
#include "platform/linux/objects/object_folder.h"

namespace kestrun::platform {

namespace {

// The kernel lists with a descriptor the locks that belong to its open file:
//
//   lock: 1: OFDLCK ADVISORY  WRITE -1 00:1a:4711 0 0
//
// The last three fields are the file as device and inode, and the first and last byte of the lock. Locks of this kind
// belong to an open file and not to a process, so F_OFD_GETLK names no owner (its l_pid is -1), and the descriptors of
// all processes have to be searched.
bool ListsLock(const std::filesystem::path& descriptor, const std::string& inode, const std::string& range) {
  std::ifstream lines(descriptor);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("lock:") && line.ends_with(":" + inode + " " + range)) return true;
  }
  return false;
}

bool HasLock(pid_t pid, const std::string& inode, const std::string& range) {
  std::error_code error;
  std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fdinfo", error);
  // A process that ends meanwhile ends the listing with an error.
  for (; !error && descriptors != std::filesystem::directory_iterator(); descriptors.increment(error)) {
    if (ListsLock(descriptors->path(), inode, range)) return true;
  }
  return false;
}

std::string Describe(pid_t pid) {
  if (pid == 0) return "another process";
  std::string name;
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::getline(file, name);
  ProcessStat stat{};
  const bool isStopped = ReadProcessStat(pid, stat) && (stat.state == 'T' || stat.state == 't');
  return "process " + std::to_string(pid) + " (" + name + (isStopped ? ", which is stopped)" : ")");
}

}  // namespace

pid_t ProcessOfThread(pid_t thread) {
  if (thread == 0) return 0;
  std::ifstream lines("/proc/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Tgid:")) return static_cast<pid_t>(std::strtol(line.c_str() + 5, nullptr, 10));
  }
  return 0;
}

pid_t HolderOfByte(int file, off_t byte) {
  struct stat status {};
  if (fstat(file, &status) != 0) return 0;
  const std::string inode = std::to_string(status.st_ino);
  const std::string range = std::to_string(byte) + " " + std::to_string(byte);
  ProcessList list;
  for (pid_t pid = list.IsValid() ? list.Next() : 0; pid != 0; pid = list.Next()) {
    if (HasLock(pid, inode, range)) return pid;
  }
  return 0;
}

bool FailByHolder(pid_t holder) {
  ReportUnusableFolder(Describe(holder) + " keeps its object table locked; let it go on, or end it");
  SetLastError(ERROR_TIMEOUT);
  return false;
}

}  // namespace kestrun::platform
