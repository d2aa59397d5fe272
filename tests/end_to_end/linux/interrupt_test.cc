// Ctrl-C at a master and at a client. A test run on Windows has no console that control events could travel through.
#include <filesystem>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using Interrupt = Build;

TEST_F(Interrupt, EndsAMasterWithOne) {
  StartMaster();
  Master().Interrupt();
  EXPECT_EQ(Master().Wait(), 1);
  EXPECT_EQ(LogCount("reason:Ctrl-C"), 1);
}

TEST_F(Interrupt, EndsAClientWithItsLocalToolOrWithoutOne) {
  StartMaster();
  NamedEvent started, waits;
  const std::string pids = UniqueName("pids");
  Child client = StartTool({"note", folder_.File(pids), ",", "signal", started.Name(), ",", "hold"});
  Child waiting = StartTool({"signal", waits.Name(), ",", "hold"});
  ASSERT_TRUE(started.Wait(20000) && waits.Wait(20000));
  waiting.Interrupt();
  EXPECT_EQ(waiting.Wait(), 1);
  EXPECT_EQ(waiting.Errors(), "");

  std::filesystem::remove(folder_.File(pids));
  Master().Kill();
  ASSERT_TRUE(started.Wait(20000));
  client.Interrupt();
  EXPECT_EQ(client.Wait(), 1);
  EXPECT_TRUE(ProcessEndsWithin(std::stoul(folder_.Read(pids)), 5000));
}

}  // namespace
}  // namespace kestrun::test
