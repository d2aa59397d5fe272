// Job scripts through a real master: exit codes, echo text, keep-going, size.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <vector>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kStubFailure = 0x45504C56;

class ScriptRun : public Build {
 protected:
  void SetUp() override { StartMaster(); }
};

TEST_F(ScriptRun, EndsWithTheExitCodeOfItsTable) {
  EXPECT_EQ(Script("").exitCode, 0);
  EXPECT_EQ(Script("# nothing\n\n; here\n  echo and no job\n").exitCode, 0);
  EXPECT_EQ(Script("$TOOL exit 0\n$TOOL print b\n").exitCode, 0);
  EXPECT_EQ(Script("$TOOL exit 3\n").exitCode, 3);
  EXPECT_EQ(Script("$TOOL exit 0\n$TOOL exit 4\n$TOOL exit 0\n", {"-k"}).exitCode, 4);

  const RunResult unreadable = Kestrun({"-s", folder_.File("no such script")});
  EXPECT_EQ(unreadable.exitCode, 1);
  EXPECT_EQ(unreadable.errors,
            "KESTRUN: error: Could not load script " + folder_.File("no such script") + " - aborting...\n");
}

TEST_F(ScriptRun, ShowsEchoLinesAheadOfTheirJob) {
  Master().Kill();
  WriteSettings("MaxConcurrentJobs=int:1\n");
  StartMaster();
  const RunResult result =
      Script("echo one\necho   two words\n$TOOL print A\n# c\n$TOOL print B\necho three\n$TOOL print C\n");
  EXPECT_EQ(result.exitCode, 0);
  // The echo text is sent when a build thread takes its job, which may be before the result of the previous job is
  // sent.
  if (result.output.find("three") > result.output.find("B\n")) {
    EXPECT_EQ(result.output, "one\r\ntwo words\r\nA\nB\nthree\r\nC\n");
  } else {
    EXPECT_EQ(result.output, "one\r\ntwo words\r\nA\nthree\r\nB\nC\n");
  }
}

TEST_F(ScriptRun, TakesEnvironmentMarkerAndContinuedLines) {
  ChildOptions options;
  options.environment["THE_TOOL"] = tool_;
  const std::string script = WriteScript("%THE_TOOL% args %UNSET_NAME% \\\n   ##I:x\n");
  const RunResult result = Kestrun({"-e", "-m", "#", "-s", script}, options);
  EXPECT_EQ(result.output, "[%UNSET_NAME%]\n[$$I:x]\n");
  for (const char* record : {"Creating Script Stub", "Build Result (script-stub)", "Project Complete"}) {
    EXPECT_EQ(LogCount(std::string("Info: [STUB] ") + record + "\r\n"), 1) << record;
  }
}

TEST_F(ScriptRun, KeepsEachJobsOutputWhole) {
  std::string script;
  for (int i = 0; i < 60; ++i) script += "$TOOL fill 40000 0 , print end" + std::to_string(i) + "\n";
  const std::string one = test::Run({tool_, "fill", "40000", "0"}).output;
  const RunResult result = Script(script);
  EXPECT_EQ(result.exitCode, 0);
  std::string rest = result.output;
  std::vector<bool> seen(60);
  while (!rest.empty()) {
    ASSERT_EQ(rest.compare(0, one.size(), one), 0) << "output of jobs is mixed";
    const std::size_t end = rest.find('\n', one.size());
    ASSERT_EQ(rest.compare(one.size(), 3, "end"), 0);
    seen.at(std::stoul(rest.substr(one.size() + 3))) = true;
    rest.erase(0, end + 1);
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 60);
}

TEST_F(ScriptRun, EndsAtOnceWhenAJobFailsWhileOthersAreStillSent) {
  // Jobs of a program that can't be started fail as fast as they come, so that those that were already sent when the
  // stub ended don't keep the master for long.
  const std::string broken = folder_.Write("broken.exe", "not a program");
  std::filesystem::permissions(broken, std::filesystem::perms::all);
  std::string script;
  for (int i = 0; i < 2000; ++i) script += broken + " x\n";
  const auto start = Clock::now();
  Child stub = StartKestrun({"-s", WriteScript(script)});
  EXPECT_EQ(stub.Wait(60000), Seen(-1));
  EXPECT_LT(Clock::now() - start, 9s);
  EXPECT_EQ(Tool({"exit", "12"}).exitCode, 12);
}

TEST_F(ScriptRun, PassesAFailureOfANestedStubOn) {
  // A nested client whose master is not there ends with 1; a job may also end with the stub's own failure code.
  const std::string nested = "\"" + ProgramPath("kestrun") + "\" -id nobody " + tool_ + " exit 0\n";
  EXPECT_EQ(Script(nested).exitCode, 1);
  const RunResult failure = Script("$TOOL error trouble , exit " + std::to_string(kStubFailure) + "\n");
  EXPECT_EQ(failure.exitCode, Seen(kStubFailure));
}

}  // namespace
}  // namespace kestrun::test
