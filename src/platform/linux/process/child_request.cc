#include "platform/linux/process/child_request.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/linux/base/descriptor_passing.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {
namespace {

// The descriptors that go along with a kStart command, in the order of helper_protocol.h: folder, streams, further
// ones.
struct StartDescriptors {
  explicit StartDescriptors(const ChildRequest& request) {
    values[count++] = request.workingDirectory.get();
    for (unsigned i = 0; i < 3; ++i) {
      if (!request.streams[i]) continue;
      streams |= 1u << i;
      values[count++] = request.streams[i]->Descriptor();
    }
    for (const int descriptor : request.further) {
      // The kernel takes no more in one message; what is beyond is not inherited.
      if (count == kMaxPassedDescriptors) break;
      values[count++] = descriptor;
      ++furtherCount;
    }
  }

  std::uint32_t streams = 0;
  std::uint32_t furtherCount = 0;
  int values[kMaxPassedDescriptors];
  std::size_t count = 0;
};

// A kStart command and the text behind it, in one buffer: the descriptors travel with the first byte, and most commands
// then go out with one system call.
std::string MakeStart(const ChildRequest& request, bool killsOnClose, const StartDescriptors& given) {
  const rlimit limit = OriginalDescriptorLimit();
  Command command = {};
  command.kind = CommandKind::kStart;
  ToolHeader& tool = command.tool;
  tool.flags = (request.hasOwnGroup ? kToolOwnGroup : 0u) | (killsOnClose ? kToolKillOnClose : 0u);
  tool.streams = given.streams;
  tool.furtherCount = given.furtherCount;
  tool.nice = request.nice;
  tool.descriptorLimit = limit.rlim_cur;
  tool.descriptorMaximum = limit.rlim_max;
  tool.argumentCount = static_cast<std::uint32_t>(request.arguments.size());
  tool.variableCount = static_cast<std::uint32_t>(request.variables.size());
  std::string text(sizeof command, '\0');
  const auto append = [&text](const std::string& entry) { text.append(entry.c_str(), entry.size() + 1); };
  append(request.path);
  for (const std::string& entry : request.arguments) append(entry);
  for (const std::string& entry : request.variables) append(entry);
  text.append(reinterpret_cast<const char*>(request.further.data()), given.furtherCount * sizeof(int));
  tool.textSize = text.size() - sizeof command;
  text.replace(0, sizeof command, reinterpret_cast<const char*>(&command), sizeof command);
  return text;
}

}  // namespace

void SendStart(int control, const ChildRequest& request, bool killsOnClose) {
  const StartDescriptors given(request);
  const std::string start = MakeStart(request, killsOnClose, given);
  const ssize_t sent = SendDescriptors(control, start.data(), start.size(), given.values, given.count);
  if (sent <= 0) return;
  // The descriptors went with what was sent. On a stream socket the rest of a long text may follow in any pieces.
  const std::size_t done = static_cast<std::size_t>(sent);
  SendAll(control, start.data() + done, start.size() - done);
}

bool SendAll(int socket, const void* bytes, std::size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t count = send(socket, at, size, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace kestrun::platform
