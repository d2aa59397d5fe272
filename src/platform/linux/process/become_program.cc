// Running a tool as the caller's shell would.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/linux/base/command_line.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_end.h"
#include "platform/linux/base/process_stat.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/tool_process.h"

namespace kestrun::platform {

namespace {

// Where shells look without a PATH.
constexpr const char* kDefaultPath = "/usr/local/bin:/usr/bin:/bin";
constexpr const char* kShell = "/bin/sh";
// Deeper trees of processes are cut where they are only looked at.
constexpr int kMostLevels = 16;

// The files that a name may mean, in order.
std::vector<std::string> ListCandidates(const std::string& name) {
  if (name.empty()) return {};
  if (name.find('/') != std::string::npos) return {name};
  const char* const variable = std::getenv("PATH");
  const std::string path = variable != nullptr ? variable : kDefaultPath;
  std::vector<std::string> candidates;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    // An empty element is the current folder.
    candidates.push_back((begin == end ? "." : path.substr(begin, end - begin)) + "/" + name);
    begin = end + 1;
  }
  return candidates;
}

// A program of another machine must not be read as a script: shells take a NUL in the first line for that.
bool LooksLikeScript(const std::string& file) {
  const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  char text[128];
  const ssize_t count = descriptor ? read(descriptor.get(), text, sizeof text) : -1;
  if (count < 0) return false;
  const char* const end = std::find(text + 0, text + count, '\n');
  return std::find(static_cast<const char*>(text), end, '\0') == end;
}

RunFailure FailureOf(int error) {
  const bool isMissing = error == ENOENT || error == ENOTDIR;
  return {isMissing ? kExitNotFound : kExitNotRunnable, std::strerror(error)};
}

std::vector<char*> Pointers(const std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// Returns errno.
int Execute(const std::string& file, const std::vector<std::string>& arguments) {
  execve(file.c_str(), Pointers(arguments).data(), environ);
  if (errno != ENOEXEC || !LooksLikeScript(file)) return errno;
  std::vector<std::string> words{kShell, file};
  words.insert(words.end(), arguments.begin() + 1, arguments.end());
  execve(kShell, Pointers(words).data(), environ);
  return errno;
}

bool IsPlainFile(const std::string& file) {
  struct stat status = {};
  return stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool HasProgramHeader(const std::string& file) {
  const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  char text[4] = {};
  // What can't be read may still be run.
  if (!descriptor || read(descriptor.get(), text, sizeof text) < 2) return !descriptor;
  return std::memcmp(text, "#!", 2) == 0 || std::memcmp(text, "\177ELF", 4) == 0;
}

}  // namespace

const bool kCanBecomeProgram = true;

RunFailure BecomeProgram(const std::vector<std::string>& arguments) {
  const rlimit limit = OriginalDescriptorLimit();
  setrlimit(RLIMIT_NOFILE, &limit);
  RestoreSignals();
  int error = ENOENT;
  for (const std::string& candidate : ListCandidates(arguments[0])) {
    const int failure = Execute(candidate, arguments);
    if (failure == ENOENT || failure == ENOTDIR) continue;
    error = failure;
    // A file that may not be run does not end the search, but tells more than that there is none.
    if (failure != EACCES) break;
  }
  return FailureOf(error);
}

bool FindProgram(const std::string& name, const std::string& argumentText, ProgramCommand& command,
                 RunFailure& failure) {
  int error = ENOENT;
  for (const std::string& candidate : ListCandidates(name)) {
    if (access(candidate.c_str(), X_OK) != 0 || !IsPlainFile(candidate)) {
      if (access(candidate.c_str(), F_OK) == 0) error = EACCES;
      continue;
    }
    const bool needsShell = !HasProgramHeader(candidate) && LooksLikeScript(candidate);
    command.application = needsShell ? kShell : candidate;
    // The name of a program is written without the quotes in it; a tool without a header is an argument of the shell.
    const std::vector<std::string> words =
        needsShell ? std::vector<std::string>{"sh", candidate} : std::vector<std::string>{name};
    command.commandLine = JoinCommandLine(words) + " " + argumentText;
    return true;
  }
  failure = FailureOf(error);
  return false;
}

std::uint32_t ParentProcess(std::uint32_t processId) {
  if (const std::uint32_t parent = ParentByPidfd(processId)) return parent;
  ProcessStat stat = {};
  return ReadProcessStat(static_cast<pid_t>(processId), stat) ? static_cast<std::uint32_t>(stat.parent) : 0;
}

std::uint64_t PeakMemoryOfTree(std::uint32_t processId) {
  return PeakMemoryBelow(static_cast<pid_t>(processId), kMostLevels);
}

std::uint64_t ProcessorTimeOfTree(std::uint32_t processId) {
  std::uint64_t ticks = 0;
  for (const auto& [pid, stat] : DescendantsOf(static_cast<pid_t>(processId))) {
    ticks += stat.userTicks + stat.kernelTicks + stat.childUserTicks + stat.childKernelTicks;
  }
  return TicksToMicroseconds(ticks);
}

std::uint64_t PipeNumber(int standardStream) {
  struct stat status = {};
  return fstat(standardStream, &status) == 0 && S_ISFIFO(status.st_mode) ? status.st_ino : 0;
}

// Closed on exec, so that a program that this process becomes finds them as they were.
void OpenClosedStandardStreams() {
  for (int descriptor = 0; descriptor < 3; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR | O_CLOEXEC);
  }
}

}  // namespace kestrun::platform
