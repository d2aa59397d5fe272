// Becoming a tool as the caller's shell would run it, and what the kernel tells about trees of processes.
//
// The search along PATH is done here and not by execvp, because execvp gives a script without "#!" to a shell whatever
// it holds, and because the error that a shell reports for a search that fails has rules of its own (see
// BecomeProgram).
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
#include "platform/linux/base/search_path.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/tool_process.h"

namespace kestrun::platform {

namespace {

constexpr const char* kShell = "/bin/sh";
// How deep UsageOfTree follows a tree of processes; what is deeper is left out of the figure.
constexpr int kMostLevels = 16;

void AddUsage(pid_t pid, int levels, ProcessUsage& usage) {
  ProcessStat stat = {};
  usage.peakMemoryBytes = std::max(usage.peakMemoryBytes, PeakMemoryOf(pid));
  if (ReadProcessStat(pid, stat)) usage.cpuUs += TicksToMicroseconds(stat.AllTicks());
  if (levels == 0) return;
  for (const pid_t child : ChildrenOf(pid)) AddUsage(child, levels - 1, usage);
}

// The files that a name may mean, in the order in which they are tried.
std::vector<std::string> ListCandidates(const std::string& name) {
  if (name.empty()) return {};
  if (name.find('/') != std::string::npos) return {name};
  const char* const variable = std::getenv("PATH");
  SearchPath path(variable != nullptr ? variable : kDefaultSearchPath);
  std::vector<std::string> candidates;
  for (std::string_view folder; path.Next(folder);) candidates.push_back(std::string(folder) + "/" + name);
  return candidates;
}

// False for a program of another machine, which a shell must not read as a script. Shells tell the two apart in the
// same way: a program has a NUL in its first line.
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

// Returns only if the program can't be run, with errno as the result. The kernel refuses a script without "#!" with
// ENOEXEC; shells run such a file themselves, and so does this.
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
  // Not ELF and not "#!": CreateProcessA would refuse the file, so the caller has a shell run it. A file that may be
  // executed but not read is left to exec, which decides by itself.
  if (!descriptor || read(descriptor.get(), text, sizeof text) < 2) return !descriptor;
  return std::memcmp(text, "#!", 2) == 0 || std::memcmp(text, "\177ELF", 4) == 0;
}

}  // namespace

const bool kCanBecomeProgram = true;

RunFailure BecomeProgram(const std::vector<std::string>& arguments) {
  // The tool gets the limit and the signals that this process was started with, not the raised limit and the ignored
  // signals that the layer has set up for itself.
  const rlimit limit = OriginalDescriptorLimit();
  setrlimit(RLIMIT_NOFILE, &limit);
  RestoreSignals();
  int error = ENOENT;
  for (const std::string& candidate : ListCandidates(arguments[0])) {
    const int failure = Execute(candidate, arguments);
    // The search goes on behind a file that may not be executed, as in shells; if nothing else is found, that file is
    // the better explanation.
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
  // The pidfd answers in one call; /proc is the way for older kernels.
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
    // The times of children that have ended stand in the fields of the parents that waited for them.
    ticks += stat.AllTicks();
  }
  return TicksToMicroseconds(ticks);
}

std::uint64_t PipeNumber(int standardStream) {
  struct stat status = {};
  return fstat(standardStream, &status) == 0 && S_ISFIFO(status.st_mode) ? status.st_ino : 0;
}

// Opened close-on-exec, so that the program that this process becomes finds the streams closed, as they were.
void OpenClosedStandardStreams() {
  for (int descriptor = 0; descriptor < 3; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR | O_CLOEXEC);
  }
}

}  // namespace kestrun::platform
