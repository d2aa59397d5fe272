#include <gtest/gtest.h>

#include <filesystem>
#include <future>

#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"
#include "tool_process.h"

namespace kestrun::test {
namespace {

TEST(Process, GivesItsOutputAndItsExitCode) {
  Tool tool = StartTool("print out error err exit 3");
  ASSERT_EQ(tool.error, 0u);
  DWORD end = 0;
  EXPECT_EQ(ReadLineFrom(tool.output), "out");
  EXPECT_EQ(ReadToEnd(tool.output, &end), "");
  EXPECT_EQ(end, static_cast<DWORD>(ERROR_BROKEN_PIPE));
  EXPECT_EQ(ReadLineFrom(tool.errors), "err");
  EXPECT_EQ(tool.Wait(), 3u);
  EXPECT_EQ(tool.ExitCode(), 3u);
}

TEST(Process, DoesNothingBeforeItIsResumed) {
  const TempFolder folder;
  Tool tool = StartTool("create \"" + folder.File("made") + "\" hold", {CREATE_SUSPENDED});
  ASSERT_EQ(tool.error, 0u);
  EXPECT_EQ(WaitForSingleObject(tool.process, 50), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(tool.ExitCode(), static_cast<DWORD>(STILL_ACTIVE));
  EXPECT_FALSE(std::filesystem::exists(folder.File("made")));
  EXPECT_EQ(ResumeThread(tool.thread), 1u);
  TerminateProcess(tool.process, 4);
  EXPECT_EQ(tool.Wait(), 4u);
}

TEST(Process, TerminatedBeforeItIsResumedNeverRuns) {
  Tool tool = StartTool("print ran", {CREATE_SUSPENDED});
  ASSERT_TRUE(TerminateProcess(tool.process, 5));
  ResumeThread(tool.thread);
  EXPECT_EQ(tool.Wait(), 5u);
  EXPECT_EQ(ReadToEnd(tool.output), "");
}

TEST(Process, SplitsItsCommandLineAsTheRunTimeDoes) {
  struct Case {
    const char* line;
    const char* arguments;
  };
  const Case cases[] = {
      {R"(a  b	c)", "[a]\n[b]\n[c]\n"},
      {R"("a b" c"d e"f "")", "[a b]\n[cd ef]\n[]\n"},
      {R"(a\b c\\d \\"e\" f" "g\\")", "[a\\b]\n[c\\\\d]\n[\\e\" f]\n[g\\]\n"},
      {R"(\"x\" \\\"y -DX=\"1\" C:\dir\)", "[\"x\"]\n[\\\"y]\n[-DX=\"1\"]\n[C:\\dir\\]\n"},
  };
  for (const Case& one : cases) {
    Tool tool = StartTool(std::string("args ") + one.line);
    ASSERT_EQ(tool.error, 0u) << one.line;
    std::string output = ReadToEnd(tool.output);
    EXPECT_EQ(output, one.arguments) << one.line;
    EXPECT_EQ(tool.Wait(), 0u);
  }
}

TEST(Process, SeesTheEnvironmentThatItIsGiven) {
  const std::string name = UniqueName("KESTRUN_VARIABLE");
  ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), "inherited"));
  EXPECT_EQ(ReadLineFrom(StartTool("env " + name).output), "inherited");
  ToolSettings settings;
  for (const std::string entry : {"SystemRoot=C:\\windows", "OTHER=1 2"}) settings.environmentBlock += entry + '\0';
  settings.environmentBlock += '\0';
  Tool tool = StartTool("env " + name + " env OTHER", settings);
  EXPECT_EQ(ReadLineFrom(tool.output), "(unset)");
  EXPECT_EQ(ReadLineFrom(tool.output), "1 2");
  SetEnvironmentVariableA(name.c_str(), nullptr);
}

TEST(Process, StartsInTheFolderThatItIsGiven) {
  const TempFolder folder;
  ToolSettings settings;
  const std::string path = folder.Path().string();
  settings.workingDirectory = path.c_str();
  Tool tool = StartTool("cwd", settings);
  EXPECT_TRUE(std::filesystem::equivalent(ReadLineFrom(tool.output), folder.Path()));
}

TEST(Process, ThatCantBeStartedTellsWhy) {
  const TempFolder folder;
  const std::string noProgram = folder.Write("text.exe", "no program at all");
  std::filesystem::permissions(noProgram, std::filesystem::perms::owner_all);
  EXPECT_EQ(StartProgram("\"" + folder.File("missing.exe") + "\"").error, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(StartProgram("\"" + noProgram + "\"").error, static_cast<DWORD>(ERROR_BAD_EXE_FORMAT));
  ToolSettings settings;
  const std::string missing = folder.File("missing");
  settings.workingDirectory = missing.c_str();
  EXPECT_EQ(StartTool("print x", settings).error, static_cast<DWORD>(ERROR_DIRECTORY));
}

TEST(Process, DeliversAllOutputOfBothStreams) {
  constexpr std::size_t kBytes = 10 * 1024 * 1024;
  Tool tool = StartTool("fill 10485760 3000000 error end exit 7");
  auto errors = std::async(std::launch::async, [&] { return ReadToEnd(tool.errors); });
  const std::string output = ReadToEnd(tool.output);
  const std::string errorText = errors.get();
  EXPECT_EQ(tool.Wait(), 7u);
  ASSERT_EQ(output.size(), kBytes);
  EXPECT_EQ(errorText.substr(3000000), "end\n");
  for (std::size_t i = 8; i < kBytes; i += i % 64 == 63 ? 9 : 1) {
    ASSERT_EQ(output[i], static_cast<char>((i * 31 + i / 251 + 1) & 0xFF)) << i;
  }
}

TEST(Process, ReadsItsInputUpToTheEnd) {
  Tool tool = StartTool("input");
  const std::string text(100000, 'x');
  DWORD written = 0;
  EXPECT_TRUE(WriteFile(tool.input, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
  tool.input.Close();
  EXPECT_EQ(ReadLineFrom(tool.output), "100000");
}

TEST(Process, IsTerminatedWithTheCodeGiven) {
  Tool tool = StartTool("print here hold");
  EXPECT_EQ(ReadLineFrom(tool.output), "here");
  EXPECT_TRUE(TerminateProcess(tool.process, 0xFFFFFFFF));
  EXPECT_EQ(tool.Wait(), 0xFFFFFFFFu);
  EXPECT_EQ(ReadToEnd(tool.output), "");
}

TEST(Process, HasTheIdThatItWasStartedUnder) {
  Tool tool = StartTool("pid hold");
  EXPECT_EQ(ReadLineFrom(tool.output), std::to_string(tool.pid));
  const ScopedHandle opened(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, tool.pid));
  ASSERT_NE(opened, nullptr);
  char name[260];
  ASSERT_NE(GetModuleBaseNameA(opened, nullptr, name, sizeof name), 0u);
  EXPECT_EQ(std::filesystem::path(name).stem(), "test_tool");
  TerminateProcess(tool.process, 0);
  EXPECT_EQ(WaitForSingleObject(opened, 60000), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(Process, StandsInTheListOfProcesses) {
  std::vector<DWORD> ids(65536);
  DWORD bytes = 0;
  ASSERT_TRUE(EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &bytes));
  ids.resize(bytes / sizeof(DWORD));
  EXPECT_EQ(std::count(ids.begin(), ids.end(), GetCurrentProcessId()), 1);
}

TEST(Process, RunsOnTheProcessorsOfItsMask) {
  Tool tool = StartTool("hold", {CREATE_SUSPENDED});
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  ASSERT_TRUE(GetProcessAffinityMask(tool.process, &own, &all));
  EXPECT_NE(own, 0u);
  const DWORD_PTR lowest = own & (~own + 1);
  EXPECT_TRUE(SetProcessAffinityMask(tool.process, lowest));
  EXPECT_TRUE(GetProcessAffinityMask(tool.process, &own, &all));
  EXPECT_EQ(own, lowest);
  EXPECT_FALSE(SetProcessAffinityMask(tool.process, 0));
}

KESTRUN_CHILD(StartsToolAndLeaves) {
  std::string line = "\"" + ProgramPath("test_tool") + "\" await " + words[0];
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION information = {};
  const DWORD flags = words[1] == "suspended" ? CREATE_SUSPENDED : 0;
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup, &information)) {
    return 1;
  }
  if (flags != 0) ResumeThread(information.hThread);
  Say(std::to_string(information.dwProcessId));
  return 0;
}

TEST(Process, WithoutAJobOutlivesItsParent) {
  for (const char* const start : {"at once", "suspended"}) {
    const std::string name = UniqueName("leave");
    const ScopedHandle leave(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
    Child parent = Child::Self("StartsToolAndLeaves", {name, start});
    const unsigned long tool = std::stoul(parent.ReadLine());
    ASSERT_TRUE(parent.EndsWithin(60000));
    EXPECT_FALSE(ProcessEndsWithin(tool, 100)) << start;
    SetEvent(leave);
    EXPECT_TRUE(ProcessEndsWithin(tool, 60000)) << start;
  }
}

}  // namespace
}  // namespace kestrun::test
