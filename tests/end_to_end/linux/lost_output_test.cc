// Clients whose output can't be written: the disk is full, or the reader has gone.
#include <algorithm>

#include "../build_fixture.h"

namespace kestrun::test {
namespace {

class LostOutput : public Build {
 protected:
  // A script of the shell, in which $K is kestrun and $T the tool.
  RunResult Shell(const std::string& script) {
    ChildOptions options;
    options.environment["K"] = ProgramPath("kestrun");
    options.environment["T"] = tool_;
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

}  // namespace
}  // namespace kestrun::test
