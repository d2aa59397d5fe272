// The zygotes of this process, seen from the process: one for each kind of session, started when first needed and again
// when it has died. All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_ZYGOTE_CLIENT_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_ZYGOTE_CLIENT_H_

#include <memory>

#include "platform/linux/helper/helper_protocol.h"

namespace kestrun::platform {

// A zygote that was started. It ends when all references to it are gone and nothing is left below it.
class Zygote {
 public:
  virtual ~Zygote() = default;

  // If a supervisor is killed, its zygote ends the processes that were below it. So a supervisor without a living
  // zygote must not get another tool.
  virtual bool IsAlive() const = 0;
};

// Asks the zygote of that session kind for a supervisor that has the socket `control`. Null with an errno if that
// fails. If the zygote dies before it has read the request, the other end of the socket ends.
std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int control, int& error);

// Disconnects from the zygote of that session kind and waits for its end, at most `limitMs`. The zygote ends when
// nothing that it started is left. A later request starts a new one.
void EndZygote(SessionKind session, int limitMs);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_ZYGOTE_CLIENT_H_
