// The zygotes of this process, seen from the process: started when first needed, and again when one has died.
#ifndef KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_
#define KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_

#include <memory>

#include "platform/linux/helper_protocol.h"

namespace kestrun::platform {

// A zygote that was started once. It ends when nobody holds it any more and nothing is left below it.
class Zygote {
 public:
  virtual ~Zygote() = default;

  // Who answers for what a supervisor leaves when it is killed. Without it a supervisor takes no further tool.
  virtual bool IsAlive() const = 0;
};

// Asks the zygote of that session kind for a supervisor at the other end of `control`. Null with an errno if that can't
// be. What was asked for may still be lost with the zygote; the control socket then ends.
std::shared_ptr<Zygote> AskForSupervisor(SessionKind session, int autogroupNice, int control, int& error);

// sendmsg with descriptors: how many bytes went, or -1 with errno.
ssize_t SendDescriptors(int socket, const void* data, std::size_t size, const int* descriptors, std::size_t count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_
