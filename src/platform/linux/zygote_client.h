// The zygotes of this process, seen from the process: started when first needed, and again when one has died.
#ifndef KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_
#define KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_

#include "platform/linux/helper_protocol.h"

namespace kestrun::platform {

// Hands a StartMessage with its descriptors to the zygote of that session kind. 0, or an errno. What was handed over
// may still be lost with the zygote; the control socket then ends.
int SendToZygote(SessionKind session, int autogroupNice, const StartMessage& message, const int* descriptors,
                 std::size_t count);

// sendmsg with descriptors: how many bytes went, or -1 with errno.
ssize_t SendDescriptors(int socket, const void* data, std::size_t size, const int* descriptors, std::size_t count);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_ZYGOTE_CLIENT_H_
