// What the kernel tells about processes in /proc.
//
// The functions keep no state, so any thread may call them, and so may a helper process. What they tell may be old at
// once: a process can end, and its id be given to another one, before the caller has looked at the answer.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_PROCESS_STAT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_PROCESS_STAT_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

#include "platform/api/base_api.h"

namespace kestrun::platform {

// Times in the kernel's ticks, sysconf(_SC_CLK_TCK) a second.
struct ProcessStat {
  char state;  // 'Z' for one that has ended and was not waited for
  pid_t parent;
  pid_t group;
  std::uint64_t userTicks;
  std::uint64_t kernelTicks;
  std::uint64_t childUserTicks;  // of children that were waited for, with theirs
  std::uint64_t childKernelTicks;
  std::uint64_t startTicks;  // since the system started; together with the id it names a process for good
  int exitStatus;            // of one in state 'Z', as waitpid gives it; 0 where the kernel does not tell

  std::uint64_t AllTicks() const { return userTicks + kernelTicks + childUserTicks + childKernelTicks; }
};

// False if there is no such process.
bool ReadProcessStat(pid_t pid, ProcessStat& stat);

// ROOT and everything below it.
std::map<pid_t, ProcessStat> DescendantsOf(pid_t root);

// The largest memory in bytes that the process has had; 0 if there is no such process.
std::uint64_t PeakMemoryOf(pid_t pid);

// The children that the process has now; empty if there is no such process.
std::vector<pid_t> ChildrenOf(pid_t pid);

std::uint64_t TicksToMicroseconds(std::uint64_t ticks);

// The processes there are, in order of id.
class ProcessList {
 public:
  ProcessList();
  ~ProcessList();
  ProcessList(const ProcessList&) = delete;
  ProcessList& operator=(const ProcessList&) = delete;

  bool IsValid() const { return directory_ != nullptr; }
  // 0 at the end.
  pid_t Next();

 private:
  void* directory_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_PROCESS_STAT_H_
