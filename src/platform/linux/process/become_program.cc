// Running a tool as the caller's shell would.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_end.h"
#include "platform/linux/base/process_stat.h"
#include "platform/linux/base/search_path.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/tool_process.h"

namespace kestrun::platform {

namespace {

constexpr const char* kShell = "/bin/sh";
// Deeper trees of processes are cut where they are only looked at.
constexpr int kMostLevels = 16;

void AddUsage(pid_t pid, int levels, ProcessUsage& usage) {
  ProcessStat stat = {};
  usage.peakMemoryBytes = std::max(usage.peakMemoryBytes, PeakMemoryOf(pid));
  if (ReadProcessStat(pid, stat)) usage.cpuUs += TicksToMicroseconds(stat.AllTicks());
  if (levels == 0) return;
  for (const pid_t child : ChildrenOf(pid)) AddUsage(child, levels - 1, usage);
}

// The files that a name may mean, in order.
std::vector<std::string> ListCandidates(const std::string& name) {
  if (name.empty()) return {};
  if (name.find('/') != std::string::npos) return {name};
  const char* const variable = std::getenv("PATH");
  SearchPath path(variable != nullptr ? variable : kDefaultSearchPath);
  std::vector<std::string> candidates;
  for (std::string_view folder; path.Next(folder);) candidates.push_back(std::string(folder) + "/" + name);
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
  return {IsMissing(error) ? kExitNotFound : kExitNotRunnable, std::strerror(error)};
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
    // A file that may not be run tells more than that there is none.
    if (!IsMissing(failure)) error = failure;
    if (!IsNextTried(failure)) break;
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
    command.commandLine = "\"" + (needsShell ? std::string("sh\" \"") + candidate : name) + "\" " + argumentText;
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

ProcessUsage UsageOfTree(std::uint32_t processId) {
  ProcessUsage usage;
  AddUsage(static_cast<pid_t>(processId), kMostLevels, usage);
  return usage;
}

std::uint64_t ProcessorTimeOfTree(std::uint32_t processId) {
  std::uint64_t ticks = 0;
  for (const auto& [pid, stat] : DescendantsOf(static_cast<pid_t>(processId))) {
    ticks += stat.AllTicks();
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
