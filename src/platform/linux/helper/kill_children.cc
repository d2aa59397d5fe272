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
    // /proc lists all processes of the machine; the file "children" of a process would be shorter, but not every kernel
    // is built with it.
    if (!ReadProcessStat(pid, stat) || stat.parent != self ||
        std::find(spared, spared + count, pid) != spared + count) {
      continue;
    }
    // A child that is still unreaped keeps the number of its group from being used again.
    if (group != 0 && stat.group == group) kill(-group, SIGKILL);
    kill(pid, SIGKILL);
  }
}

}  // namespace kestrun::platform
