// The descriptors above the standard ones, which dorn hands down from its caller to its build command.
#include "dorn_fixture.h"

namespace kestrun::test {
namespace {

class DornDescriptors : public Dorn {
 protected:
  DornDescriptors() {
    WriteSettings("MaxConcurrentJobs=int:8\n");
    EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0);
  }
  RunResult RunLine(const std::string& line) {
    ChildOptions options = Environment();
    options.workingDirectory = folder_.Path().string();
    return test::Run({"/bin/bash", "-c", line}, options);
  }
};

// What `ls` has open includes the folder that it reads, by itself or below dorn.
TEST_F(DornDescriptors, AreThoseOfItsCallerAndNoOthers) {
  for (const std::string opened : {"", "exec 7>seven 4</dev/null; ", "exec 3>a 4>b 5>c 6>d 9>e 63</dev/null; ",
                                   "ulimit -n 256; exec 254</dev/null 255</dev/null; "}) {
    const RunResult direct = RunLine(opened + "ls /proc/self/fd");
    const RunResult below = RunLine(opened + ProgramPath("dorn") + " ls /proc/self/fd");
    EXPECT_EQ(direct.output, below.output) << opened;
    EXPECT_EQ(below.errors, "");
  }
}

TEST_F(DornDescriptors, KeepTheirNumbersAndFiles) {
  const RunResult result = RunLine("exec 3>three 4>four 5<<<'from five'; exec " + ProgramPath("dorn") + " " +
                                   ProgramPath("kestrun") + " sh -c 'echo x3 >&3; echo x4 >&4; cat <&5'");
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output, "from five\n");
  EXPECT_EQ(folder_.Read("three"), "x3\n");
  EXPECT_EQ(folder_.Read("four"), "x4\n");
}

// A make that can't reach the jobserver of the make above it warns of that and runs one job at a time. Job `one` would
// then wait in vain for job `two`.
TEST_F(DornDescriptors, CarryTheJobserverOfAnOuterMake) {
  NamedEvent here;
  NamedEvent there;
  const std::string client = "\t@" + ProgramPath("kestrun") + " " + tool_ + " ";
  folder_.Write("Makefile", "all:\n\t+@" + ProgramPath("dorn") + " $(MAKE) -s inner\ninner: one two\n" +  //
                                "one:\n" + client + "signal " + here.Name() + " , await " + there.Name() + "\ntwo:\n" +
                                client + "await " + here.Name() + " , signal " + there.Name() + "\n");
  const RunResult result = RunLine("make -s -j2");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "");
}

}  // namespace
}  // namespace kestrun::test
