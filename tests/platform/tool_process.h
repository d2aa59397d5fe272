// Starts test_tool with CreateProcessA and keeps its handles, for the tests of processes, jobs and pipes.
#ifndef KESTRUN_TESTS_PLATFORM_TOOL_PROCESS_H_
#define KESTRUN_TESTS_PLATFORM_TOOL_PROCESS_H_

#include <string>

#include "platform/win32.h"
#include "scoped_handle.h"

namespace kestrun::test {

struct Pipe {
  ScopedHandle read;
  ScopedHandle write;
};

// A pipe of which the child's end alone is inheritable.
Pipe MakePipe(bool childReads);

// Everything up to the end of the pipe; `error` is what ended it.
std::string ReadToEnd(HANDLE pipe, DWORD* error = nullptr);
// Up to the next line end, which is left out.
std::string ReadLineFrom(HANDLE pipe);

struct ToolSettings {
  DWORD flags = 0;
  const char* workingDirectory = nullptr;
  bool sharesInput = false;  // this process's standard input in place of a pipe
};

// A running tool with three pipes. What is still running when the object goes is terminated, unless the test has closed
// the process handle.
struct Tool {
  Tool() = default;
  Tool(Tool&&) = default;
  Tool& operator=(Tool&&) = default;
  ~Tool();

  DWORD error = 0;  // of a start that failed
  DWORD pid = 0;
  ScopedHandle process;
  ScopedHandle thread;
  ScopedHandle input;
  ScopedHandle output;
  ScopedHandle errors;

  // The exit code, once it has ended.
  DWORD Wait(DWORD limitMs = 60000) const;
  DWORD ExitCode() const;
};

// The full name of test_tool.
std::string ToolPath();

// `words` go behind the program's name as they stand.
Tool StartTool(const std::string& words, const ToolSettings& settings = {});
Tool StartProgram(const std::string& commandLine, const ToolSettings& settings = {});

// A job that ends with its last handle.
ScopedHandle MakeJob();

// The tool's words for one background child of each kind that the system has, all of them held; it prints their ids.
inline constexpr char kFamilyWords[] =
    "background plain hold then background group hold then background session hold then background daemon hold then ";

// Started in the job from its first instruction.
Tool StartToolIn(const ScopedHandle& job, const std::string& words);

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_TOOL_PROCESS_H_
