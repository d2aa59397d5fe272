// Everything that a tool is started with, as it arrives over the control socket, and the exec that makes a process the
// tool.
//
// Owned by the supervisor and used for one tool after the other, so that its buffers are allocated already. The process
// that is to become the tool uses it in the supervisor's memory, while the supervisor stands still.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_TOOL_START_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_TOOL_START_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/linux/base/descriptor_passing.h"
#include "platform/linux/helper/helper_protocol.h"

namespace kestrun::platform {

class ToolStart {
 public:
  // Blocks until a kStart command has come with its text; other commands are ignored. False when the socket has ended.
  bool Receive(int control);

  const ToolHeader& header() const { return header_; }

  bool EnterWorkingDirectory() const;
  // Puts the streams that came along at descriptors 0 to 2; the others remain /dev/null. Further descriptors get the
  // numbers that came with them. Only Execute may follow, since any other descriptor of this process may have been
  // replaced.
  void PlaceDescriptors();
  // Returns only if the program can't be run, after a line on the standard error stream.
  void Execute() const;

 private:
  bool ReceiveText(int control);
  std::size_t StreamCount() const;
  void PlaceFurther();

  ToolHeader header_ = {};
  int descriptors_[kMaxPassedDescriptors] = {};
  std::vector<char> text_;
  const char* path_ = nullptr;
  std::vector<char*> arguments_;
  std::vector<char*> variables_;
  std::vector<int> furtherNumbers_;
};

// Reads exactly `size` bytes; false when the socket ends before.
bool ReceiveAll(int socket, void* buffer, std::size_t size);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_TOOL_START_H_
