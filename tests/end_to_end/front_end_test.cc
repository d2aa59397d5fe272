// What a user sees of kestrun without a master: help, version, and the errors of the command line.
#include <algorithm>
#include <filesystem>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using FrontEnd = Build;

constexpr char kNoMaster[] =
    "KESTRUN: error: could not access master Kestrun instance (this should have been started by DORN) - aborting...\n"
    "KESTRUN: run the build as \"dorn <build command>\", which starts a master for it\n";

TEST_F(FrontEnd, TellsHowItIsUsed) {
  for (const Words& words : {Words{"--help"}, Words{"--help", "--version"}}) {
    const RunResult help = Kestrun(words);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.output.find("usage: Kestrun [options] <tool> [args]\n"), std::string::npos);
    EXPECT_NE(help.output.find("   -e              - expand environment variables in scripts\n"), std::string::npos);
    EXPECT_EQ(help.output.rfind("kestrun (release) ", 0), 0u);
    EXPECT_EQ(help.errors, "");
  }
  const RunResult version = Kestrun({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.output.rfind("kestrun (release) 1.", 0), 0u);
  EXPECT_EQ(std::count(version.output.begin(), version.output.end(), '\n'), 1);
}

TEST_F(FrontEnd, TellsMoreWhenAskedForAll) {
  const RunResult help = Kestrun({"--help", "all"});
  EXPECT_EQ(help.exitCode, 0);
  // An option that the short text leaves out, and an example.
  for (const char* text : {"   -s <script>     - ", "   -es <event>     - ", "dorn kestrun -s jobs.script\n"}) {
    EXPECT_NE(help.output.find(text), std::string::npos) << text;
  }
  // Any other word leaves the usage text as it is.
  EXPECT_EQ(Kestrun({"--help", "al"}).output, Kestrun({"--help"}).output);
}

TEST_F(FrontEnd, AnswersACommandLineThatItCannotUseWithTheUsageTextAndTheCause) {
  const struct {
    Words words;
    const char* errors;
  } cases[] = {
      {{}, ""},
      {{"-t", "abc", "cl"}, "KESTRUN: error: -t wants a number of minutes, not \"abc\"\n"},
      {{"-n"}, "KESTRUN: error: -n wants a value behind it: -n <name>\n"},
      {{"-m", "", "cl"}, "KESTRUN: error: -m wants at least one character, not \"\"\n"},
      {{"-k"}, "KESTRUN: error: no tool is named, and no script\n"},
  };
  for (const auto& c : cases) {
    const RunResult result = Kestrun(c.words);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, Kestrun({"--help"}).output);
    EXPECT_EQ(result.errors, c.errors);
  }
}

TEST_F(FrontEnd, CallsAWrongOptionAWrongOption) {
  const RunResult result = Kestrun({"-chx", tool_});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(
      result.errors,
      "KESTRUN: error: Cannot locate executable for \"-chx\"\n"
      "KESTRUN: error: Could not get full path for tool -chx\n"
      "KESTRUN: \"-chx\" is an option that this version does not have, and so was taken for the tool; kestrun --help "
      "all tells the options\n");
}

TEST_F(FrontEnd, NamesAToolThatIsMissing) {
  const RunResult empty = Kestrun({""});
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_EQ(empty.errors, "KESTRUN: error: No tool specified\n");

  const RunResult missing = Kestrun({"No-Such-Tool", "-c"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.errors,
            "KESTRUN: error: Cannot locate executable for \"no-such-tool\"\n"
            "KESTRUN: error: Could not get full path for tool no-such-tool\n");
}

TEST_F(FrontEnd, RefusesAnOptionsVariableThatDoesNotParse) {
  ChildOptions options;
  options.environment["KESTRUN_OPTS"] = "-t soon";
  const RunResult result = Kestrun({tool_}, options);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.errors,
            "KESTRUN: error parsing KESTRUN_OPTS environment variable\n"
            "KESTRUN: -t wants a number of minutes, not \"soon\"\n");
}

TEST_F(FrontEnd, RunsNothingWithoutAMaster) {
  const std::string mark = folder_.File("ran");
  const RunResult tool = Tool({"create", mark});
  EXPECT_EQ(tool.exitCode, 1);
  EXPECT_EQ(tool.errors, kNoMaster);

  const RunResult script = Script("$TOOL create " + mark + "\n");
  EXPECT_EQ(script.exitCode, 1);
  EXPECT_NE(script.errors.find("Could not access master Kestrun instance"), std::string::npos);
  EXPECT_NE(script.errors.find("dorn <build command>"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(mark));
}

// The name of the semaphore belongs to an event, so that the master can't be made.
TEST_F(FrontEnd, TellsOfAnExceptionAndFails) {
  const NamedEvent inTheWay(false, "zelvo_client_access_" + id_);
  const RunResult master = Kestrun({"-master"});
  EXPECT_EQ(master.exitCode, 1);
  EXPECT_EQ(master.errors, "KESTRUN: error: exception thrown: error=6, msg=CreateSemaphore() failed in Semaphore ctor");
  EXPECT_EQ(LogCount("Error: [STUB] Master Kestrun instance threw an exception"), 1);
  // With both, the script counts.
  EXPECT_NE(Kestrun({"-master", "-s", "x"}).errors.find("Could not access master"), std::string::npos);
}

TEST_F(FrontEnd, WarnsOfAVariableThatIsTooLong) {
  ChildOptions options;
  options.environment["KESTRUN_ID"] = std::string(300, 'i');
  const RunResult result = Tool({"exit", "0"}, options);
  const std::string warning = "KESTRUN: warning: KESTRUN_ID is too long, ignored\n";
  EXPECT_NE(result.errors.find(warning), std::string::npos);
  EXPECT_EQ(result.errors.rfind(warning), result.errors.find(warning)) << "said once";
}

}  // namespace
}  // namespace kestrun::test
