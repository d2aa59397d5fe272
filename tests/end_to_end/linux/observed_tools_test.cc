// Tools that clients have become: what dorn writes of them, against what really ran.
#include <algorithm>
#include <filesystem>
#include <map>

#include "dorn_fixture.h"
#include "support/json.h"

namespace kestrun::test {
namespace {

class ObservedTools : public Dorn {
 protected:
  // Runs the shell script below a dorn with its first settings and gives its record. $K is kestrun.
  Json Record(const std::string& script) {
    std::filesystem::remove_all(folder_.Path() / "common");
    ChildOptions options = Environment();
    options.environment["K"] = ProgramPath("kestrun");
    const RunResult result = test::Run(
        {ProgramPath("dorn"), "-j", "3", "--record", folder_.File("record.json"), "/bin/sh", "-c", script}, options);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    return Json::Parse(folder_.Read("record.json"));
  }
};

TEST_F(ObservedTools, AreToldWithTheirLengthsAndEnds) {
  const std::string count = std::to_string(Scaled(200));
  const Json record = Record("i=0; while [ $i -lt " + count +
                             " ]; do\n"
                             "  $K -n job$i /bin/sh -c \"sleep 0.00$((i % 7)); exit $((i % 4))\" &\n"
                             "  i=$((i + 1)); done; wait");
  ASSERT_EQ(record["jobs"].elements.size(), Scaled(200));
  EXPECT_EQ(record["build"]["jobs_dropped"].Int(), 0);
  std::map<std::string, int> seen;
  for (const Json& job : record["jobs"].elements) {
    const std::string name = job["name"].string;
    ASSERT_EQ(name.substr(0, 3), "job");
    const int i = std::stoi(name.substr(3));
    EXPECT_EQ(++seen[name], 1);
    // Not known where the system tells neither by /proc in time nor by the pidfd.
    if (job["outcome"].string != "unknown") {
      EXPECT_EQ(job["exit_code"].Int(), i % 4) << name;
      EXPECT_EQ(job["outcome"].string, i % 4 == 0 ? "ok" : "failed") << name;
    }
    EXPECT_GE(job["ended_us"].Int() - job["started_us"].Int(), (i % 7) * 1000) << name;
    EXPECT_LE(job["queued_us"].Int(), job["started_us"].Int());
    EXPECT_EQ(job["parent"].Int(), 0);
    EXPECT_EQ(job["tool"].string, "/bin/sh");
    EXPECT_FALSE(job["folder"].string.empty());
    EXPECT_GE(job["slot"].Int(), 0);
  }
}

TEST_F(ObservedTools, AreToldWithTheJobThatTheyAreInAndTheSignalThatEndedThem) {
  const Json record = Record("$K -n outer /bin/sh -c '$K -n inner /bin/sh -c \"kill -9 \\$\\$\"; exit 0'; exit 0");
  std::map<std::string, Json> jobs;
  for (const Json& job : record["jobs"].elements) jobs[job["name"].string] = job;
  ASSERT_EQ(jobs.size(), 2u);
  EXPECT_EQ(jobs["inner"]["parent"].Int(), jobs["outer"]["number"].Int());
  EXPECT_EQ(jobs["outer"]["parent"].Int(), 0);
  if (jobs["inner"]["outcome"].string != "unknown") {
    EXPECT_EQ(jobs["inner"]["outcome"].string, "signalled");
    EXPECT_EQ(jobs["inner"]["signal"].Int(), 9);
    EXPECT_TRUE(jobs["inner"]["exit_code"].IsNull());
  }
}

// A second build shares the master and has jobs of its own.
TEST_F(ObservedTools, OfAnotherBuildAreNotTold) {
  std::filesystem::remove_all(folder_.Path() / "common");
  NamedEvent started;
  NamedEvent release;
  Child first = Child::Start(
      {ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "signal", started.Name(), ",", "await", release.Name()},
      Environment());
  ASSERT_TRUE(started.Wait(30000));
  const RunResult second = RunDorn({"--record", folder_.File("record.json"), ProgramPath("kestrun"), "/bin/true"});
  release.Signal();
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.exitCode, 0);
  const Json record = Json::Parse(folder_.Read("record.json"));
  ASSERT_EQ(record["jobs"].elements.size(), 1u);
  EXPECT_EQ(record["jobs"].elements[0]["tool"].string, "/bin/true");
}

}  // namespace
}  // namespace kestrun::test
