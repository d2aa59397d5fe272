#include "client/local_build.h"

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

TEST(LocalBuild, EchoesTheToolAndGivesItsExitCodeOrMinusOneIfItCannotStart) {
  const std::string tool = test::ProgramPath("test_tool");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(LocalBuild().Run(Path(tool), "as_typed print $$I:out , error $$O:err , exit 6 $$Cmore"), 6);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "out\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "err\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(LocalBuild().Run(Path(tool + "_missing"), "as_typed "), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("CreateProcess(as_typed ) failed with error "),
            std::string::npos);
}

TEST(LocalBuild, RunsNothingOnceStopped) {
  LocalBuild build;
  build.Stop();
  testing::internal::CaptureStdout();
  EXPECT_EQ(build.Run(Path(test::ProgramPath("test_tool")), "tool print x"), LocalBuild::kNotRun);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace kestrun
