#ifndef KESTRUN_TESTS_PLATFORM_LINUX_HELPER_PARENT_OF_H_
#define KESTRUN_TESTS_PLATFORM_LINUX_HELPER_PARENT_OF_H_

#include "platform/linux/base/process_stat.h"

namespace kestrun::test {

// A tool's parent is its supervisor, whose parent is the zygote. 0 if there is no such process.
inline pid_t ParentOf(pid_t pid) {
  platform::ProcessStat stat = {};
  return platform::ReadProcessStat(pid, stat) ? stat.parent : 0;
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_LINUX_HELPER_PARENT_OF_H_
