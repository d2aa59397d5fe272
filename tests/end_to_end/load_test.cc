// Many clients, and many jobs.
//
// A job whose tool the system refused to start ends with -1, and the master says so; on a system that never does, each
// tool has to run.
#include <algorithm>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

class Load : public Build {
 protected:
  static Words ToolWords(int job, int code) {
    return {"print", "job" + std::to_string(job), ",", "exit", std::to_string(code)};
  }
  // Once the master has stopped.
  bool WasRefused(int job) {
    if (!RefusesProcesses()) return false;
    return Master().Errors().find("print job" + std::to_string(job) + " , exit") != std::string::npos;
  }
};

// By a master that runs the tools, or that hands out slots.
class ManyClients : public Load, public testing::WithParamInterface<bool> {};

TEST_P(ManyClients, AreServedAtOnceWith30Places) {
  const int count = static_cast<int>(Scaled(1000));
  // Without eager scheduling the tick counts: as many clients as there are places, twice a second.
  WriteSettings("\n[Extensions]\nEagerScheduling=bool:true\nTransparentTools=bool:" +
                std::string(GetParam() ? "true\n" : "false\n"));
  StartMaster();
  std::map<int, Child> clients;
  for (int i = 0; i < count; ++i) {
    try {
      clients.emplace(i, StartTool(ToolWords(i, i % 256)));
    } catch (const std::runtime_error& e) {
      EXPECT_TRUE(RefusesProcesses()) << e.what();
    }
  }
  std::map<int, int> codes;
  for (auto& [i, client] : clients) {
    codes[i] = client.Wait(550000);
    EXPECT_EQ(client.Errors(), "") << i;
  }
  EXPECT_EQ(StopMaster(), 0);
  int refused = 0;
  for (auto& [i, client] : clients) {
    refused += WasRefused(i) ? 1 : 0;
    EXPECT_EQ(codes[i], WasRefused(i) ? Seen(-1) : i % 256);
    EXPECT_EQ(client.Output(), WasRefused(i) ? "" : "job" + std::to_string(i) + "\n");
  }
  EXPECT_LE(refused, 3);
  EXPECT_GE(static_cast<int>(clients.size()), count - 3);
  if (!GetParam()) {
    EXPECT_EQ(LogCount("Build Job completed"), static_cast<int>(clients.size()));
  }
}

INSTANTIATE_TEST_SUITE_P(Load, ManyClients, testing::Bool(),
                         [](const auto& test) { return test.param ? "Slots" : "Described"; });

class LongScripts : public Load, public testing::WithParamInterface<unsigned> {};

TEST_P(LongScripts, LoseNoJobAndRunNoneTwice) {
  const int count = static_cast<int>(Scaled(GetParam()));
  StartMaster();
  std::string script;
  for (int i = 0; i < count; ++i) {
    script += "$TOOL";
    for (const std::string& word : ToolWords(i, 0)) script += " " + word;
    script += "\n";
  }
  const RunResult result = Script(script, {"-k"}, 550000);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(StopMaster(), 0);
  std::vector<std::string> expected;
  for (int i = 0; i < count; ++i) {
    if (!WasRefused(i)) expected.push_back("job" + std::to_string(i));
  }
  const int refused = count - static_cast<int>(expected.size());
  EXPECT_LE(refused, 10);
  EXPECT_EQ(result.exitCode, refused == 0 ? 0 : Seen(-1));
  std::istringstream lines(result.output);
  std::vector<std::string> seen{std::istream_iterator<std::string>(lines), {}};
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(seen == expected) << result.output;
}

INSTANTIATE_TEST_SUITE_P(Load, LongScripts, testing::Values(1000u, 20000u), testing::PrintToStringParamName());

}  // namespace
}  // namespace kestrun::test
