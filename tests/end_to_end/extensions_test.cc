// What the settings of the section Extensions change in a master.
#include <sstream>
#include <string>
#include <vector>

#include "kill_support.h"

namespace kestrun::test {
namespace {

class Extensions : public Build {
 protected:
  void StartMasterWith(const std::string& settings, const std::string& extensions) {
    WriteSettings(settings + "\n[Extensions]\n" + extensions);
    StartMaster();
  }
  // The ids in a file that test_tool wrote with "note".
  std::vector<unsigned long> Noted(const std::string& file) {
    std::istringstream lines(folder_.Read(file));
    std::vector<unsigned long> ids;
    for (unsigned long id = 0; lines >> id;) ids.push_back(id);
    return ids;
  }
};

TEST_F(Extensions, EndTheToolsOfAClientThatIsKilled) {
  StartMasterWith("", "CancelOrphanedJobs=bool:true\n");
  for (const char* mode : {"plain", "group", "session", "daemon"}) {
    const std::string file = UniqueName("pids");
    const std::string path = folder_.File(file);
    NamedEvent started;
    Child client = StartTool({"note", path, ",", "background", mode, "note", path, ",", "signal", started.Name(), ",",
                              "hold", "then", "hold"});
    ASSERT_TRUE(started.Wait(20000)) << mode;
    client.Kill();
    const std::vector<unsigned long> ids = Noted(file);
    EXPECT_EQ(ids.size(), 2u) << mode;
    for (const unsigned long id : ids) EXPECT_TRUE(ProcessEndsWithin(id, 5000)) << mode;
  }
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(LogCount("Jobs of a lost stub cancelled"), 4);
  EXPECT_EQ(LogCount("Build Job completed (CANCELLED)"), 4);
  EXPECT_EQ(LogCount("Build Job completed (FAIL)"), 1);
  EXPECT_EQ(LogCount(" failed_file:"), 1);
}

TEST_F(Extensions, LetToolsOfALostClientRunToTheirEndByDefault) {
  WriteSettings("MaxStubs=int:2\n");
  StartMaster();
  NamedEvent started;
  NamedEvent release;
  NamedEvent ended;
  {
    Child client = StartTool({"signal", started.Name(), ",", "await", release.Name(), ",", "signal", ended.Name()});
    ASSERT_TRUE(started.Wait(20000));
    client.Kill();
  }
  // The master has seen the end of the first channel once it has served another client behind it.
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  release.Signal();
  EXPECT_TRUE(ended.Wait(20000));
  PlaceCount(id_).Expect(1);  // nor does its place come back
}

TEST_F(Extensions, KeepNoOutputAndCountJobsAllTheSame) {
  StartMasterWith("", "DiscardOutput=bool:true\nEagerScheduling=bool:true\n");
  for (const char* text : {"one", "two"}) {
    EXPECT_EQ(Tool({"print", text, ",", "exit", "5"}).output, std::string(text) + "\n");
    const RunResult script = Script("$TOOL print a\n$TOOL print b\n");
    EXPECT_EQ(script.exitCode, 0);
    EXPECT_NE(script.output.find("b\n"), std::string::npos);
  }
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(LogCount("Build Job completed (OK)"), 4);
  EXPECT_EQ(LogCount(" failed_file:"), 2);
  EXPECT_EQ(LogCount("Could not find record"), 0);
}

}  // namespace
}  // namespace kestrun::test
