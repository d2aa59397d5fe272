// Clients whose output can't be written: the disk is full, or the reader has gone.
#include <algorithm>
#include <filesystem>

#include "../build_fixture.h"

namespace kestrun::test {
namespace {

class LostOutput : public Build {
 protected:
  void SetUp() override {
    if (!std::filesystem::is_character_file("/dev/full")) GTEST_SKIP() << "this system has no device that is full";
    Build::SetUp();
  }
  // A script of the shell, in which $K is kestrun and $T the tool.
  RunResult Shell(const std::string& script) {
    ChildOptions options;
    options.environment["K"] = ProgramPath("kestrun");
    options.environment["T"] = tool_;
    options.environment["D"] = ProgramPath("dorn");
    return test::Run({"/bin/sh", "-c", script}, WithEnvironment(options));
  }
  static void ExpectSays(const RunResult& result, const std::string& cause) {
    EXPECT_NE(result.errors.find("KESTRUN: error: cannot write to standard output: " + cause + "\n"),
              std::string::npos);
  }
  static void ExpectLastLine(const RunResult& result, const std::string& line) {
    EXPECT_EQ(result.errors.substr(result.errors.rfind('\n', result.errors.size() - 2) + 1), line + "\n");
  }
  // `client` runs a program that writes more than a pipe holds.
  void ExpectNoLossInSilence(const std::string& client) {
    SCOPED_TRACE(client);
    const RunResult full = Shell(client + " > /dev/full");
    EXPECT_EQ(full.exitCode, 1);
    ExpectSays(full, "No space left on device");
    EXPECT_EQ(Shell(client + " 2> /dev/full").exitCode, 1);
    const std::string toHead = "{ " + client + "; echo \"\n\"$? >&2; } | head -c 1";
    ExpectLastLine(Shell(toHead), "141");
    const RunResult ignored = Shell("trap '' PIPE; " + toHead);
    ExpectSays(ignored, "Broken pipe");
    ExpectLastLine(ignored, "1");
  }
};

TEST_F(LostOutput, IsReportedAndFailsOrEndsTheClient) {
  StartMaster();
  ExpectNoLossInSilence("$K $T fill 300000 10");
  ExpectNoLossInSilence("$K -s " + WriteScript("$TOOL fill 300000 10\n$TOOL print b\n"));
  EXPECT_EQ(Shell("$K --version > /dev/full").exitCode, 1);
}

TEST_F(LostOutput, IsReportedInALocalBuildToo) {
  WriteSettings("IpcTimeout=int:100\n");
  // It admits clients, and nothing answers them.
  const HANDLE access = CreateSemaphoreA(nullptr, 10, 10, ("zelvo_client_access_" + id_).c_str());
  ExpectNoLossInSilence("$K $T fill 300000 10");
  CloseHandle(access);
}

// The first name is a link, so that a dorn that replaces the file breaks the link and not the machine's device.
TEST_F(LostOutput, OfARecordIsNamedAndADeviceOrPipeStaysOne) {
  const std::string full = folder_.File("full");
  const std::string pipe = folder_.File("pipe");
  std::filesystem::create_symlink("/dev/full", full);
  const std::string dorn = "$D --record " + full + " --trace " + pipe + " $K $T exit 3";
  const RunResult result = Shell("mkfifo " + pipe + "; cat " + pipe + " & " + dorn + "; code=$?; wait; exit $code");
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.errors.find("cannot write " + full + ": No space left on device"), std::string::npos)
      << result.errors;
  EXPECT_TRUE(std::filesystem::is_symlink(full));
  EXPECT_NE(result.output.find("\"traceEvents\""), std::string::npos) << result.output;
}

}  // namespace
}  // namespace kestrun::test
