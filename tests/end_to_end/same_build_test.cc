// With Extensions/TransparentTools a tool does what it does without Kestrun.
#include <string>
#include <vector>

#include "same_build_fixture.h"

namespace kestrun::test {
namespace {

// What test_tool is told, and what it gets on its standard input.
struct ToolRow {
  Words words;
  std::string input;
};

const ToolRow kToolRows[] = {
    {{"print", "out", ",", "error", "err", ",", "print", "more", ",", "exit", "77"}, ""},
    {{"fill", "300000", "200000"}, ""},
    {{"input"}, "some bytes\r\nof input"},
    {{"input"}, ""},
    {{"env", "PATH", ",", "env", "KESTRUN_TEST_WORD", ",", "env", "KESTRUN_ID"}, ""},
    {{"create", "made", ",", "create", "Made.Too"}, ""},
    {{"crash"}, ""},
    {{"exit", "255"}, ""},
    {{"args", "", "a b", "c\"d", "e\\", "\\\\f\\\"", "'g h'", "%PATH%", "*", "a\tb"}, ""},
    // What the described form of a client takes for its own.
    {{"args", "@list", "-Iopenssl@3/include", "git@host", "$$I:a.c", "$$O:b", "x$$Cut", "-v", "--help", "-s"}, ""},
};

TEST_F(SameBuild, AToolDoesWhatItDoesByItself) {
  StartTransparentMaster();
  for (const ToolRow& row : kToolRows) {
    Words direct{tool_};
    direct.insert(direct.end(), row.words.begin(), row.words.end());
    Words through{ProgramPath("kestrun")};
    through.insert(through.end(), direct.begin(), direct.end());
    ChildOptions options;
    options.input = row.input;
    options.environment["KESTRUN_TEST_WORD"] = "a \"word\" = x";
    ExpectSame(RunApart(direct, options), RunApart(through, options), row.words[0] + " " + row.words.back());
  }
  EXPECT_EQ(StopMaster(), 0);
}

// Four clients, one below the other, in one slot; the fifth is their tool.
TEST_F(SameBuild, ClientsBelowOneAnotherShareASlot) {
  StartTransparentMaster("MaxConcurrentJobs=int:1\n");
  const std::string kestrun = ProgramPath("kestrun");
  const RunResult result = Kestrun({kestrun, kestrun, kestrun, tool_, "print", "deep", ",", "exit", "3"});
  EXPECT_EQ(result.exitCode, 3) << result.errors;
  EXPECT_EQ(result.output, "deep\n");
}

// A script's jobs and single tools keep one limit together, and a job of a script lends its slot as well.
TEST_F(SameBuild, AScriptsJobLendsItsSlot) {
  StartTransparentMaster("MaxConcurrentJobs=int:1\n");
  const RunResult result = Script("\"" + ProgramPath("kestrun") + "\" $TOOL print nested\n");
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output, "nested\n");
  const std::string kestrun = "\"" + ProgramPath("kestrun") + "\" ";
  const std::string inner =
      kestrun + "-s \"" + WriteScript("$TOOL print one\n" + kestrun + "$TOOL print two\n") + "\"\n";
  EXPECT_EQ(Script(kestrun + "-s \"" + WriteScript(inner + inner) + "\"\n").output, "one\ntwo\none\ntwo\n");
}

TEST_F(SameBuild, AScriptNamesTheLinesThatFail) {
  StartTransparentMaster();
  const std::string failed = Script("$TOOL exit 0\n\n$TOOL exit 3\n").errors;
  EXPECT_EQ(failed.rfind("KESTRUN: line 3 failed with exit code 3: ", 0), 0u) << failed;
  EXPECT_EQ(Script("$TOOL exit 0\nno_such_tool x\n").errors,
            "KESTRUN: error: Cannot locate executable for \"no_such_tool\"\n"
            "KESTRUN: error: line 2 names that tool; no job was started\n");
}

TEST_F(SameBuild, TheLimitHoldsAndAKilledClientGivesItsSlotBack) {
  StartTransparentMaster("MaxConcurrentJobs=int:1\n");
  NamedEvent running;
  NamedEvent release;
  Child first = StartTool({"signal", running.Name(), ",", "hold"});
  ASSERT_TRUE(running.Wait(20000));
  Child second = StartTool({"signal", running.Name(), ",", "await", release.Name(), ",", "exit", "5"});
  EXPECT_FALSE(running.Wait(300)) << "two tools run at once";
  StartTool({"print", "never"}).Kill();
  first.Kill();
  EXPECT_TRUE(running.Wait(20000));
  release.Signal();
  EXPECT_EQ(second.Wait(), 5);
  EXPECT_EQ(Tool({"print", "free"}).output, "free\n");
}

TEST_F(SameBuild, WithoutAMasterAToolRunsInSilence) {
  WriteSettings("\n[Extensions]\nTransparentTools=bool:true\n");
  const RunResult result = Tool({"print", "alone", ",", "exit", "6"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_EQ(result.output, "alone\n");
  EXPECT_EQ(result.errors, "");
}

TEST_F(SameBuild, ATimeLimitEndsAToolWithAllThatItStarted) {
  StartTransparentMaster("MaxConcurrentJobs=int:2\n", "EnforceJobTimeout=bool:true\n");
  // The unit of -t is minutes, and even one minute is too long for a test: this only runs a tool that ends in time.
  const RunResult result = Kestrun({"-t", "1", tool_, "print", "in time", ",", "exit", "8"});
  EXPECT_EQ(result.exitCode, 8) << result.errors;
  EXPECT_EQ(result.output, "in time\n");
}

TEST_F(SameBuild, WhatCannotRunIsSaidAsAShellSaysIt) {
  StartTransparentMaster();
  const RunResult missing = Kestrun({"no-such-tool-anywhere"});
  EXPECT_EQ(missing.exitCode, 127);
  EXPECT_NE(missing.errors.find("KESTRUN: error: cannot run no-such-tool-anywhere: "), std::string::npos);
  const RunResult unnamed = Kestrun({""});
  EXPECT_EQ(unnamed.exitCode, 127);
  EXPECT_NE(unnamed.errors.find("KESTRUN: error: cannot run \"\": "), std::string::npos) << unnamed.errors;
  // With a master that does not hand out slots, the client sends its tool to the master.
  EXPECT_EQ(StopMaster(), 0);
  WriteSettings("");
  StartMaster();
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(Kestrun({"no-such-tool-anywhere"}).exitCode, 1);
  EXPECT_EQ(Kestrun({""}).errors, "KESTRUN: error: No tool specified\n");
}

}  // namespace
}  // namespace kestrun::test
