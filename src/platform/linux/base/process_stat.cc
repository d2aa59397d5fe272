// What the kernel tells about processes in /proc, read with plain system calls: the helpers call this in processes with
// little memory, and lists of all processes are read often.
#include "platform/linux/base/process_stat.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kestrun::platform {

bool ReadProcessStat(pid_t pid, ProcessStat& stat) {
  char name[40];
  std::snprintf(name, sizeof name, "/proc/%d/stat", pid);
  const int file = open(name, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  char text[1024];
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  if (length <= 0) return false;
  text[length] = '\0';
  // The program's name is in parentheses and may contain blanks and parentheses itself, so fields are counted from the
  // last one.
  const char* const end = std::strrchr(text, ')');
  if (end == nullptr) return false;
  unsigned long user = 0, kernel = 0;
  long childUser = 0, childKernel = 0;
  unsigned long long start = 0;
  int exitStatus = 0;
  const int fields = std::sscanf(
      end + 1,
      " %c %d %d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %ld %ld %*d %*d %*d %*d %llu"
      " %*u %*d %*u %*u %*u %*u %*u %*u %*u %*u %*u %*u %*u %*u %*u %*d %*d %*u %*u %*u %*u %*d %*u %*u %*u"
      " %*u %*u %*u %*u %d",
      &stat.state, &stat.parent, &stat.group, &user, &kernel, &childUser, &childKernel, &start, &exitStatus);
  // The exit status, which is the last field, may be missing: kernels before 3.5 do not write it.
  if (fields < 8) return false;
  stat.exitStatus = exitStatus;
  stat.userTicks = user;
  stat.kernelTicks = kernel;
  stat.childUserTicks = static_cast<std::uint64_t>(childUser);
  stat.childKernelTicks = static_cast<std::uint64_t>(childKernel);
  stat.startTicks = start;
  return true;
}

std::map<pid_t, ProcessStat> DescendantsOf(pid_t root) {
  std::map<pid_t, ProcessStat> all;
  ProcessList list;
  for (pid_t pid = list.IsValid() ? list.Next() : 0; pid != 0; pid = list.Next()) {
    ProcessStat stat;
    if (ReadProcessStat(pid, stat)) all[pid] = stat;
  }
  const auto isBelow = [&](pid_t pid) {
    // The table is read while processes come and go, so the chain of parents may be a circle; the number of steps is
    // limited.
    for (std::size_t steps = 0; steps <= all.size(); ++steps) {
      if (pid == root) return true;
      const auto entry = all.find(pid);
      if (entry == all.end()) return false;
      pid = entry->second.parent;
    }
    return false;
  };
  std::map<pid_t, ProcessStat> below;
  for (const auto& entry : all) {
    if (isBelow(entry.first)) below.insert(entry);
  }
  return below;
}

namespace {

// The first 4 KiB of a file of a process; empty if it can't be read.
std::string ReadProcessFile(pid_t pid, const char* format) {
  char name[64];
  std::snprintf(name, sizeof name, format, pid, pid);
  const int file = open(name, O_RDONLY | O_CLOEXEC);
  if (file < 0) return "";
  char text[4096];
  const ssize_t length = read(file, text, sizeof text);
  close(file);
  return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : "";
}

}  // namespace

std::uint64_t PeakMemoryOf(pid_t pid) {
  const std::string text = ReadProcessFile(pid, "/proc/%d/status");
  const std::size_t at = text.find("VmHWM:");
  return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + 6, nullptr, 10) * 1024;
}

std::vector<pid_t> ChildrenOf(pid_t pid) {
  // The children of the main thread only, in kernels that have this file; children of other threads are left out.
  const std::string text = ReadProcessFile(pid, "/proc/%d/task/%d/children");
  std::vector<pid_t> children;
  const char* next = text.c_str();
  for (char* end = nullptr;; next = end) {
    const long child = std::strtol(next, &end, 10);
    if (end == next) return children;
    children.push_back(static_cast<pid_t>(child));
  }
}

std::uint64_t TicksToMicroseconds(std::uint64_t ticks) {
  return ticks * 1000000 / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

ProcessList::ProcessList() : directory_(opendir("/proc")) {}

ProcessList::~ProcessList() {
  if (directory_ != nullptr) closedir(static_cast<DIR*>(directory_));
}

pid_t ProcessList::Next() {
  while (const dirent* const entry = readdir(static_cast<DIR*>(directory_))) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (pid > 0 && *end == '\0') return static_cast<pid_t>(pid);
  }
  return 0;
}

}  // namespace kestrun::platform
