// What a tool finds when it starts, and what becomes of its pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "../tool_process.h"
#include "platform/linux/handle_table.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

std::string OutputOf(const std::string& script, const ToolSettings& settings = {}) {
  const Tool tool = StartProgram("/bin/sh -c \"" + script + "\"", settings);
  EXPECT_EQ(tool.error, 0u);
  return ReadToEnd(tool.output);
}

KESTRUN_CHILD(HasOddState) {
  // Not closed on exec, as a careless parent leaves them.
  for (const int descriptor : {10, 251}) {
    if (dup2(STDIN_FILENO, descriptor) != descriptor) return 1;
  }
  signal(SIGUSR1, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  for (const char* const script : {"ls /proc/$$/fd", "grep -E 'Sig(Ign|Blk)' /proc/self/status"}) {
    std::string output = OutputOf(script);
    std::replace(output.begin(), output.end(), '\n', ' ');
    Say(output);
  }
  return 0;
}

TEST(ChildState, HasThreeDescriptorsAndItsSignalsAtTheirDefaults) {
  Child child = Child::Self("HasOddState");
  EXPECT_EQ(child.ReadLine(), "0 1 2 ");
  EXPECT_EQ(child.ReadLine(), "SigBlk:\t0000000000000000 SigIgn:\t0000000000000000 ");
}

TEST(ChildState, HasTheUsersLimitOfDescriptors) {
  EXPECT_EQ(OutputOf("ulimit -n"), std::to_string(platform::OriginalDescriptorLimit().rlim_cur) + "\n");
}

TEST(ChildState, HasThePriorityOfItsClass) {
  const int own = getpriority(PRIO_PROCESS, 0);
  const auto expected = [&](int more) { return std::to_string(std::min(own + more, 19)) + "\n"; };
  EXPECT_EQ(OutputOf("nice"), expected(0));
  EXPECT_EQ(OutputOf("nice", {BELOW_NORMAL_PRIORITY_CLASS}), expected(10));
  EXPECT_EQ(OutputOf("nice", {IDLE_PRIORITY_CLASS}), expected(19));
}

constexpr char kGroupAndSession[] = "echo $$ $(cut -d' ' -f5,6 /proc/$$/stat)";

TEST(ChildState, WithAPipedInputHasItsOwnGroupAndNoTerminal) {
  int pid = 0, group = 0, session = 0;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, pid);
  EXPECT_NE(session, getsid(0));
  EXPECT_NE(session, pid);
}

TEST(ChildState, WithOurInputStaysInOurGroupUnlessItIsToHaveItsOwn) {
  ToolSettings settings;
  settings.sharesInput = true;
  int pid = 0, group = 0, session = 0;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession, settings).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, getpgrp());
  EXPECT_EQ(session, getsid(0));
  settings.flags = CREATE_NEW_PROCESS_GROUP;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession, settings).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, pid);
  EXPECT_EQ(session, getsid(0));
}

TEST(ChildState, DeathByASignalIsAnExitCode) {
  for (const int number : {SIGKILL, SIGSEGV, SIGTERM}) {
    Tool tool = StartProgram("/bin/sh -c \"kill -" + std::to_string(number) + " $$\"");
    EXPECT_EQ(tool.Wait(), 128u + static_cast<unsigned>(number));
  }
}

TEST(ChildState, AGroupIsInterruptedOnlyIfItWasStartedForThat) {
  Tool plain = StartTool("print up hold");
  EXPECT_EQ(ReadLineFrom(plain.output), "up");
  EXPECT_FALSE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, plain.pid));
  Tool group = StartTool("print up hold", {CREATE_NEW_PROCESS_GROUP});
  EXPECT_EQ(ReadLineFrom(group.output), "up");
  EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group.pid));
  EXPECT_EQ(group.Wait(), 128u + SIGTERM);
  EXPECT_FALSE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group.pid));
}

TEST(ChildState, FilesThatCantBeRunAreToldFromOneAnother) {
  const TempFolder folder;
  const auto errorOf = [&](const char* text, mode_t mode) {
    const std::string name = folder.Write("file", text);
    chmod(name.c_str(), mode);
    const Tool tool = StartProgram(name);
    // While it is being started the file can't be written anew.
    if (tool.error == ERROR_SUCCESS) tool.Wait();
    return tool.error;
  };
  EXPECT_EQ(errorOf("#!/bin/sh\nexit 0\n", 0700), ERROR_SUCCESS);
  EXPECT_EQ(errorOf("#!/bin/sh\n", 0600), ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf("#! /no/such/interpreter -x\n", 0700), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(errorOf("#!/bin/no_such_interpreter\n", 0700), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(errorOf("echo no first line\n", 0700), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(errorOf("", 0700), ERROR_BAD_EXE_FORMAT);
  EXPECT_EQ(StartProgram(folder.Path().string()).error, ERROR_ACCESS_DENIED);
  EXPECT_EQ(StartProgram(folder.File("file") + "/below").error, ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(StartProgram(folder.File("missing/program")).error, ERROR_PATH_NOT_FOUND);
  ToolSettings settings;
  const std::string missing = folder.File("missing");
  settings.workingDirectory = missing.c_str();
  EXPECT_EQ(StartTool("print x", settings).error, ERROR_DIRECTORY);
}

TEST(ChildState, TooLongArgumentsAreRefusedAndLongOnesArrive) {
  EXPECT_EQ(StartTool("args " + std::string(128 * 1024, 'x')).error, ERROR_FILENAME_EXCED_RANGE);
  std::string words;
  while (words.size() < 700 * 1024) words += " " + std::string(60000, 'y');
  const Tool tool = StartTool("args" + words);
  ASSERT_EQ(tool.error, 0u);
  const std::string output = ReadToEnd(tool.output);
  EXPECT_EQ(static_cast<std::size_t>(std::count(output.begin(), output.end(), 'y')), 12u * 60000u);
  while (words.size() < 7 * 1024 * 1024) words += words;
  EXPECT_EQ(StartTool("args" + words).error, ERROR_FILENAME_EXCED_RANGE);
}

TEST(ChildState, ANameEndingInExeMeansTheFileWithoutIt) {
  Tool tool = StartProgram("\\bin\\sh.exe -c \"exit 9\"");
  ASSERT_EQ(tool.error, 0u);
  EXPECT_EQ(tool.Wait(), 9u);
}

// Reading ends when the tool has ended, however long a descendant holds its pipes.
TEST(ChildState, OutputIsCompleteAndEndsWithTheTool) {
  const ScopedHandle job = MakeJob();
  Tool tool = StartToolIn(job, "background session hold then fill 3000000 0 print marker");
  const unsigned long descendant = std::stoul(ReadLineFrom(tool.output));
  DWORD end = 0;
  const std::string output = ReadToEnd(tool.output, &end);
  EXPECT_EQ(end, ERROR_BROKEN_PIPE);
  EXPECT_EQ(output.size(), 3000000u + 7u);
  EXPECT_EQ(output.substr(3000000), "marker\n");
  EXPECT_TRUE(ProcessExists(descendant));
}

TEST(ChildState, OutputEndsThoughADescendantNeverStopsWriting) {
  const ScopedHandle job = MakeJob();
  Tool tool = StartProgram("/bin/sh -c \"(while :; do echo chatter; done) & echo marker; exit 1\"", {CREATE_SUSPENDED});
  ASSERT_TRUE(AssignProcessToJobObject(job, tool.process));
  ResumeThread(tool.thread);
  EXPECT_NE(ReadToEnd(tool.output).find("marker\n"), std::string::npos);
  EXPECT_EQ(tool.Wait(), 1u);
}

}  // namespace
}  // namespace kestrun::test
