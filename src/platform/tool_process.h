// How a client becomes or runs the tool that it stands in for, in the way in which its caller's shell would have run
// the tool.
#ifndef KESTRUN_PLATFORM_TOOL_PROCESS_H_
#define KESTRUN_PLATFORM_TOOL_PROCESS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace kestrun::platform {

// True where a process can become another program and keep its id, its parent, its streams and everything else.
extern const bool kCanBecomeProgram;

// The exit codes of shells for a program that can't be run.
inline constexpr int kExitNotRunnable = 126;
inline constexpr int kExitNotFound = 127;

// Why a program could not be run.
struct RunFailure {
  int exitCode = kExitNotFound;
  std::string cause;
};

// The process becomes the program, which finds signals, limits and descriptors as this process was started with them.
// A name without a folder is looked for along PATH; a file without a program's header is run by the shell. Returns only
// if that fails. No other thread may run.
RunFailure BecomeProgram(const std::vector<std::string>& arguments);

// The program to start as a child, if this process can't become it or is to stay.
struct ProgramCommand {
  std::string application;
  std::string commandLine;
};

// Looks the program up as the caller's shell would. `argumentText` is the text behind the program's name, unchanged.
// False with the reason if there is no such program.
bool FindProgram(const std::string& name, const std::string& argumentText, ProgramCommand& command,
                 RunFailure& failure);

// The parent of a process; 0 if it has none, or the system does not tell.
std::uint32_t ParentProcess(std::uint32_t processId);

// The processor time, in microseconds, that a process and everything below it have used so far; 0 if there is no such
// process. The call takes milliseconds.
std::uint64_t ProcessorTimeOfTree(std::uint32_t processId);

// The memory and time that a process and those below it that live now have used so far; zeros if there is no such
// process, or if the system does not tell. Cheaper than ProcessorTimeOfTree, and looks a few levels deep only.
struct ProcessUsage {
  std::uint64_t peakMemoryBytes = 0;  // the most that one of them has had at once
  std::uint64_t cpuUs = 0;            // of all of them, and of children that they waited for, in the system's ticks
};
ProcessUsage UsageOfTree(std::uint32_t processId);

// The pipe that is this process's standard input (0) or output (1), by a number that is the same in every process of
// the machine; 0 for what is no pipe, and where the system does not tell.
std::uint64_t PipeNumber(int standardStream);

// Opens those of the three standard descriptors that are closed on the null device, for this process alone: a file that
// the program opens must not be taken for one of them. To be called before anything is opened.
void OpenClosedStandardStreams();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_TOOL_PROCESS_H_
