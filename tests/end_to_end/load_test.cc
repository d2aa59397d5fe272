// Many clients, and many jobs.
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using Load = Build;

std::vector<std::string> SortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST_F(Load, Serve300ClientsAtOnceWith30Places) {
  StartMaster();
  std::vector<Child> clients;
  for (int i = 0; i < 300; ++i) {
    clients.push_back(StartTool({"print", std::to_string(i), ",", "exit", std::to_string(i % 256)}));
  }
  for (int i = 0; i < 300; ++i) {
    const auto n = static_cast<std::size_t>(i);
    EXPECT_EQ(clients[n].Wait(100000), i % 256);
    EXPECT_EQ(clients[n].Output(), std::to_string(i) + "\n");
    EXPECT_EQ(clients[n].Errors(), "");
  }
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(LogCount("Build Job completed"), 300);
}

TEST_F(Load, RunsAThousandJobsWithoutLossOrDuplicate) {
  StartMaster();
  std::string script;
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) {
    script += "$TOOL print job" + std::to_string(i) + "\n";
    expected.push_back("job" + std::to_string(i));
  }
  std::sort(expected.begin(), expected.end());
  const RunResult result = Script(script, {}, 100000);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(SortedLines(result.output), expected);
}

}  // namespace
}  // namespace kestrun::test
