#include "platform/linux/base/process_end.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_stat.h"

namespace kestrun::platform {

namespace {

// A copy of the kernel's structure in its first published size, because few systems have headers that declare it.
struct PidfdInfo {
  std::uint64_t mask;
  std::uint64_t cgroupId;
  std::uint32_t pid;
  std::uint32_t tgid;
  std::uint32_t ppid;
  std::uint32_t userIds[8];
  std::int32_t exitCode;
};
static_assert(sizeof(PidfdInfo) == 64);

constexpr unsigned long kGetInfo = _IOWR(0xFF, 11, PidfdInfo);
constexpr std::uint64_t kInfoPid = 1u << 0;
constexpr std::uint64_t kInfoExit = 1u << 3;

void SetStatus(int status, ProcessEnd& end) {
  end.isKnown = true;
  if (WIFSIGNALED(status)) {
    end.signal = WTERMSIG(status);
  } else {
    end.exitCode = WEXITSTATUS(status);
  }
}

// The processor time of a process in microseconds; 0 if the process is gone. Its clock is finer than /proc, which
// counts in ticks, mostly of 10 ms.
std::int64_t ProcessorTimeOf(pid_t pid) {
  clockid_t clock = 0;
  timespec time = {};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
  return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

// True if the process was not waited for yet, and so its id still belongs to it: signalling through the pidfd fails
// after that. Without this test a new process of the same id could be read.
bool IsStillThere(int pidfd) {
#ifdef SYS_pidfd_send_signal
  return syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) == 0;
#else
  return false;
#endif
}

}  // namespace

std::uint32_t ParentByPidfd(std::uint32_t processId) {
#ifdef SYS_pidfd_open
  const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, processId, 0)));
  PidfdInfo info = {};
  info.mask = kInfoPid;
  if (process && ioctl(process.get(), kGetInfo, &info) == 0 && (info.mask & kInfoPid) != 0) return info.ppid;
#endif
  return 0;
}

ProcessEnd ReadProcessEnd(std::uint32_t processId, int pidfd) {
  ProcessEnd end;
  if (pidfd < 0) return end;
  ProcessStat stat = {};
  const std::int64_t ownUs = ProcessorTimeOf(static_cast<pid_t>(processId));
  // The id is tested after /proc was read: if it was the process's own then, it was so before.
  if (ReadProcessStat(static_cast<pid_t>(processId), stat) && stat.state == 'Z' && IsStillThere(pidfd)) {
    SetStatus(stat.exitStatus, end);
    end.cpuUs = ownUs + static_cast<std::int64_t>(TicksToMicroseconds(stat.childUserTicks + stat.childKernelTicks));
    return end;
  }
  PidfdInfo info = {};
  info.mask = kInfoExit;
  if (ioctl(pidfd, kGetInfo, &info) == 0 && (info.mask & kInfoExit) != 0) SetStatus(info.exitCode, end);
  return end;
}

}  // namespace kestrun::platform
