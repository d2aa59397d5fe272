// Everything that a tool is started with, and how it is sent to the tool's process: a kStart command with the working
// directory and the streams as descriptors (helper_protocol.h). The receiving side is tool_start.h.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_REQUEST_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_REQUEST_H_

#include <memory>
#include <string>
#include <vector>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/helper/helper_protocol.h"

namespace kestrun::platform {

struct ChildRequest {
  std::string path;
  std::vector<std::string> arguments;
  std::vector<std::string> variables;  // "NAME=value"
  FileDescriptor workingDirectory;
  std::shared_ptr<FileObject> streams[3];  // null is /dev/null
  std::vector<int> further;                // open descriptors that the tool has under the same numbers
  SessionKind session = SessionKind::kShared;
  bool hasOwnGroup = false;
  bool mayBeInterrupted = false;  // the caller asked for the group, and so to be able to signal it
  int nice = 0;
};

// Blocks until the socket has taken all of it. Failures are not reported: a supervisor that has gone shows in the end
// of the socket.
void SendStart(int control, const ChildRequest& request, bool killsOnClose);

// Sends all bytes; false when the other end has gone.
bool SendAll(int socket, const void* bytes, std::size_t size);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_REQUEST_H_
