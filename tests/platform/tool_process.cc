#include "tool_process.h"

#include <gtest/gtest.h>

#include "support/child.h"

namespace kestrun::test {

Pipe MakePipe(bool childReads) {
  SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  EXPECT_TRUE(CreatePipe(&read, &write, &inheritable, 0));
  SetHandleInformation(childReads ? write : read, HANDLE_FLAG_INHERIT, 0);
  return {ScopedHandle(read), ScopedHandle(write)};
}

std::string ReadToEnd(HANDLE pipe, DWORD* error) {
  std::string text;
  char block[8192];
  DWORD count = 0;
  while (ReadFile(pipe, block, sizeof block, &count, nullptr) && count > 0) text.append(block, count);
  if (error != nullptr) *error = GetLastError();
  return text;
}

std::string ReadLineFrom(HANDLE pipe) {
  std::string line;
  char c = 0;
  DWORD count = 0;
  while (ReadFile(pipe, &c, 1, &count, nullptr) && count == 1 && c != '\n') {
    if (c != '\r') line += c;
  }
  return line;
}

Tool::~Tool() {
  if (process == nullptr || WaitForSingleObject(process, 0) == WAIT_OBJECT_0) return;
  TerminateProcess(process, 99);
  // On Windows a process that is to end does so with its threads running.
  ResumeThread(thread);
}

DWORD Tool::Wait(DWORD limitMs) const {
  EXPECT_EQ(WaitForSingleObject(process, limitMs), WAIT_OBJECT_0);
  return ExitCode();
}

DWORD Tool::ExitCode() const {
  DWORD code = 0xDEAD;
  EXPECT_TRUE(GetExitCodeProcess(process, &code));
  return code;
}

std::string ToolPath() {
  return ProgramPath("test_tool");
}

Tool StartTool(const std::string& words, const ToolSettings& settings) {
  return StartProgram("\"" + ToolPath() + "\" " + words, settings);
}

Tool StartProgram(const std::string& commandLine, const ToolSettings& settings) {
  Pipe input = MakePipe(true);
  Pipe output = MakePipe(false);
  Pipe errors = MakePipe(false);
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = settings.sharesInput ? GetStdHandle(STD_INPUT_HANDLE) : HANDLE{input.read};
  startup.hStdOutput = output.write;
  startup.hStdError = errors.write;
  std::string line = commandLine;
  PROCESS_INFORMATION information = {};
  Tool tool;
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, settings.flags, nullptr, settings.workingDirectory,
                      &startup, &information)) {
    tool.error = GetLastError();
    return tool;
  }
  tool.pid = information.dwProcessId;
  tool.process = ScopedHandle(information.hProcess);
  tool.thread = ScopedHandle(information.hThread);
  tool.input = std::move(input.write);
  tool.output = std::move(output.read);
  tool.errors = std::move(errors.read);
  return tool;
}

ScopedHandle MakeJob() {
  ScopedHandle job(CreateJobObjectA(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  EXPECT_TRUE(SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits));
  return job;
}

Tool StartToolIn(const ScopedHandle& job, const std::string& words) {
  Tool tool = StartTool(words, {CREATE_SUSPENDED});
  EXPECT_TRUE(AssignProcessToJobObject(job, tool.process));
  EXPECT_EQ(ResumeThread(tool.thread), 1u);
  return tool;
}

}  // namespace kestrun::test
