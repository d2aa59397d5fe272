#include "platform/linux/helper/kill_children.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/base/process_stat.h"

namespace kestrun::platform {

void KillChildren(pid_t group, const pid_t* spared, std::size_t count) {
  const pid_t self = getpid();
  ProcessList list;
  for (pid_t pid = list.IsValid() ? list.Next() : 0; pid != 0; pid = list.Next()) {
    ProcessStat stat;
    if (!ReadProcessStat(pid, stat) || stat.parent != self ||
        std::find(spared, spared + count, pid) != spared + count) {
      continue;
    }
    if (group != 0 && stat.group == group) kill(-group, SIGKILL);
    kill(pid, SIGKILL);
  }
}

}  // namespace kestrun::platform
