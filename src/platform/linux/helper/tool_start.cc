// What arrives with a kStart command, and the exec. After the clone in supervisor.cc this code runs in a process that
// shares the supervisor's memory, so what is allocated here belongs to the supervisor and is used again for its next
// tool.
#include "platform/linux/helper/tool_start.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/linux/base/descriptor_passing.h"

namespace kestrun::platform {
namespace {

// A buffer larger than this is freed before the next tool, so that one long command line does not cost memory for good.
constexpr std::size_t kKeptText = 256 * 1024;

char* Take(char*& at) {
  char* const start = at;
  at += std::strlen(at) + 1;
  return start;
}

void TakeAll(char*& at, std::uint32_t count, std::vector<char*>& entries) {
  entries.clear();
  for (std::uint32_t i = 0; i < count; ++i) entries.push_back(Take(at));
  entries.push_back(nullptr);
}

}  // namespace

bool ToolStart::Receive(int control) {
  Command command = {};
  std::size_t count = 0;
  for (;;) {
    // The thread sleeps in poll and not in recvmsg. A sleeper in recvmsg is also woken when the other end reads a
    // report from its side, to sleep again at once; poll is not woken then.
    pollfd wait{control, POLLIN, 0};
    poll(&wait, 1, -1);
    const ssize_t length = ReceiveDescriptors(control, &command, sizeof command, descriptors_, count);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return false;
    // The descriptors come with the first byte; on a stream socket the rest of the command may come later.
    const std::size_t received = static_cast<std::size_t>(length);
    if (!ReceiveAll(control, reinterpret_cast<char*>(&command) + received, sizeof command - received)) return false;
    if (command.kind == CommandKind::kStart) break;
  }
  header_ = command.tool;
  return count == 1 + StreamCount() + header_.furtherCount && ReceiveText(control);
}

std::size_t ToolStart::StreamCount() const {
  return static_cast<std::size_t>(std::popcount(header_.streams & 7u));
}

bool ToolStart::ReceiveText(int control) {
  if (text_.capacity() > kKeptText) std::vector<char>().swap(text_);
  text_.resize(header_.textSize + 1);
  if (!ReceiveAll(control, text_.data(), header_.textSize)) return false;
  text_.back() = '\0';
  char* at = text_.data();
  path_ = Take(at);
  TakeAll(at, header_.argumentCount, arguments_);
  TakeAll(at, header_.variableCount, variables_);
  furtherNumbers_.resize(header_.furtherCount);
  if (header_.furtherCount > 0) std::memcpy(furtherNumbers_.data(), at, header_.furtherCount * sizeof(int));
  return true;
}

bool ToolStart::EnterWorkingDirectory() const {
  return fchdir(descriptors_[0]) == 0;
}

void ToolStart::PlaceDescriptors() {
  std::size_t next = 1;
  for (int i = 0; i < 3; ++i) {
    if ((header_.streams & (1u << i)) != 0) dup2(descriptors_[next++], i);
  }
  PlaceFurther();
}

// Gives the further descriptors their numbers. If the number that one needs is taken by another that is still to be
// placed, that other one is moved away first. All of them arrived close-on-exec; dup2 clears that flag on the copy, and
// fcntl does where a descriptor has its number already.
void ToolStart::PlaceFurther() {
  int* const further = descriptors_ + 1 + StreamCount();
  for (std::size_t i = 0; i < furtherNumbers_.size(); ++i) {
    const int number = furtherNumbers_[i];
    if (further[i] == number) {
      fcntl(number, F_SETFD, 0);
      continue;
    }
    for (std::size_t later = i + 1; later < furtherNumbers_.size(); ++later) {
      if (further[later] == number) further[later] = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
    dup2(further[i], number);
  }
}

void ToolStart::Execute() const {
  timespec pause{0, 1000000};
  do {
    execve(path_, arguments_.data(), variables_.data());
    // ETXTBSY: the file is open for writing. A process that has just written it may have forked meanwhile, and the
    // forked child keeps the descriptor until its own exec, so a retry helps soon.
    if (errno != ETXTBSY) break;
    nanosleep(&pause, nullptr);
    pause.tv_nsec *= 2;
  } while (pause.tv_nsec < 300000000);
  dprintf(STDERR_FILENO, "KESTRUN: error: cannot run %s: %s\n", path_, std::strerror(errno));
}

bool ReceiveAll(int socket, void* buffer, std::size_t size) {
  char* at = static_cast<char*>(buffer);
  while (size > 0) {
    const ssize_t count = recv(socket, at, size, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    at += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace kestrun::platform
