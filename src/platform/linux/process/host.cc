#include "platform/host.h"

#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/linux/base/environment.h"
#include "platform/linux/base/process_stat.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/files/file_names.h"

namespace kestrun::platform {
namespace {

std::string HomeFolder() {
  std::string home;
  if (FindVariable("HOME", home) && !home.empty()) return home;
  // getpwuid would load shared libraries for the name services, and a static program can't rely on finding those that
  // fit it.
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> users(std::fopen("/etc/passwd", "re"), std::fclose);
  if (!users) return "";
  while (const passwd* const user = fgetpwent(users.get())) {
    if (user->pw_uid == getuid()) return user->pw_dir;
  }
  return "";
}

unsigned ProcessorsOfAffinity() {
  // The largest number that a kernel can be built for. sched_getaffinity fails if the set is smaller than the kernel's
  // own, as a plain cpu_set_t (1024) may be.
  constexpr int kMaxProcessors = 8192;
  const std::unique_ptr<cpu_set_t, void (*)(cpu_set_t*)> set(CPU_ALLOC(kMaxProcessors),
                                                             [](cpu_set_t* memory) { CPU_FREE(memory); });
  const std::size_t size = CPU_ALLOC_SIZE(kMaxProcessors);
  if (!set || sched_getaffinity(0, size, set.get()) != 0) return std::thread::hardware_concurrency();
  return static_cast<unsigned>(CPU_COUNT_S(size, set.get()));
}

// How many processors the quota of one group amounts to, rounded up; 0 without a quota.
unsigned QuotaOfGroup(const std::string& folder) {
  long long quota = -1;
  long long period = 0;
  // Version 2 of the control groups has one file with both numbers, version 1 a file for each. "max" fails to read as a
  // number and means no quota.
  if (std::ifstream both(folder + "/cpu.max"); !(both >> quota >> period)) {
    std::ifstream(folder + "/cpu.cfs_quota_us") >> quota;
    std::ifstream(folder + "/cpu.cfs_period_us") >> period;
  }
  return quota > 0 && period > 0 ? static_cast<unsigned>((quota + period - 1) / period) : 0;
}

// The smallest quota of this process's group and the groups above it; 0 without any. A container's limit is often set
// on a group further up.
unsigned ProcessorsOfQuota() {
  unsigned smallest = 0;
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    const std::size_t controllers = line.find(':') + 1;
    const std::size_t colon = line.find(':', controllers);
    if (controllers == 0 || colon == std::string::npos) continue;
    // A line is "number:controllers:path"; the line of version 2 names no controllers.
    const bool unified = colon == controllers;
    if (!unified && line.find("cpu", controllers) > colon) continue;
    const std::string root = unified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/cpu";
    std::string group = line.substr(colon + 1);
    while (true) {
      const unsigned quota = QuotaOfGroup(root + group);
      if (quota != 0) smallest = smallest == 0 ? quota : std::min(smallest, quota);
      if (group.empty()) break;
      group.resize(group.rfind('/') == std::string::npos ? 0 : group.rfind('/'));
    }
  }
  return smallest;
}

}  // namespace

const char kPathListSeparator = ':';
const bool kFileNamesIgnoreCase = false;

const bool kCommandLineIsJoined = true;

std::string DefaultCommonPath() {
  std::string data;
  // The convention for this variable says that a relative path is to be ignored.
  if (!FindVariable("XDG_DATA_HOME", data) || data.empty() || data[0] != '/') data = HomeFolder() + "/.local/share";
  return data + "/Ravelin Works/Common";
}

void SetStandardStreamsBinary() {}

void FlushStandardStreams() {
  for (std::FILE* stream : {stdout, stderr}) {
    // A stopped thread may hold the stream's lock for ever.
    if (ftrylockfile(stream) != 0) continue;
    fflush_unlocked(stream);
    funlockfile(stream);
  }
}

WriteFailure LastWriteFailure() {
  const int error = errno;
  return {error == EPIPE, std::strerror(error)};
}

void EndWithoutReader() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  RestoreSignals();
  raise(SIGPIPE);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

std::FILE* OpenStdio(const std::string& name, const char* mode) {
  return std::fopen(SystemName(name).c_str(), (std::string(mode) + "e").c_str());
}

bool IsStopped(DWORD processId) {
  ProcessStat stat = {};
  return ReadProcessStat(static_cast<pid_t>(processId), stat) && (stat.state == 'T' || stat.state == 't');
}

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

unsigned UsableProcessors() {
  const unsigned allowed = std::max(1u, ProcessorsOfAffinity());
  const unsigned quota = ProcessorsOfQuota();
  return quota == 0 ? allowed : std::min(allowed, quota);
}

}  // namespace kestrun::platform
