// Several dorns of one user: one master, and builds that know nothing of one another.
#include <vector>

#include "dorn_fixture.h"
#include "kill_support.h"
#include "protocol/dorn_session.h"

namespace kestrun::test {
namespace {

// A build that signals that it runs and waits until the test lets it go on.
struct Held {
  std::unique_ptr<NamedEvent> started = std::make_unique<NamedEvent>(true);
  std::unique_ptr<NamedEvent> release = std::make_unique<NamedEvent>(true);
  std::unique_ptr<Child> dorn = nullptr;

  void AwaitStart() const { ASSERT_TRUE(started->Wait(60000)) << dorn->Errors(); }
  // The rest of the build, and its exit code.
  int End() const {
    release->Signal();
    return dorn->Wait();
  }
};

class SharedMaster : public Dorn {
 protected:
  SharedMaster() {
    WriteSettings("MaxConcurrentJobs=int:8\n");
    EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0);
  }

  // A process that is being killed may have its objects for a moment longer.
  void ExpectNothingLeft() const {
    ExpectNoMaster();
    const std::string folder = *Environment().environment["KESTRUN_OBJECT_DIR"];
    EXPECT_TRUE(BecomesTrue([&] { return NamedObjectsLeft(folder).empty(); }, 10000)) << NamedObjectsLeft(folder);
  }

  // dorn with these options around a build that prints the master's id, waits, and then runs a tool with this code.
  Held StartHeld(const std::string& code, const Words& options = {}) {
    Held held;
    Words words{ProgramPath("dorn")};
    words.insert(words.end(), options.begin(), options.end());
    for (const std::string& word :
         {ProgramPath("kestrun"), tool_, std::string("env"), std::string("KESTRUN_ID"), std::string(","),
          std::string("signal"), held.started->Name(), std::string(","), std::string("await"), held.release->Name(),
          std::string(","), std::string("exit"), code}) {
      words.push_back(word);
    }
    held.dorn = std::make_unique<Child>(Child::Start(words, Environment()));
    return held;
  }
};

TEST_F(SharedMaster, ServesEachBuildToItsEndInWhateverOrderTheyEnd) {
  for (const bool firstEndsFirst : {true, false}) {
    const Held first = StartHeld("3");
    first.AwaitStart();
    const Held second = StartHeld("5");
    second.AwaitStart();
    EXPECT_EQ((firstEndsFirst ? first : second).End(), firstEndsFirst ? 3 : 5);
    EXPECT_TRUE(HasMaster());
    EXPECT_EQ((firstEndsFirst ? second : first).End(), firstEndsFirst ? 5 : 3);
    // The dorn that ends last waits for the end of the master.
    EXPECT_FALSE(HasMaster());
    EXPECT_NE(first.dorn->Output(), "");
    EXPECT_EQ(first.dorn->Output(), second.dorn->Output());
    EXPECT_EQ(first.dorn->Errors() + second.dorn->Errors(), "");
  }
}

TEST_F(SharedMaster, OutlivesADornThatIsKilled) {
  for (const bool killsFirst : {true, false}) {
    const Held first = StartHeld("3");
    first.AwaitStart();
    const Held second = StartHeld("3");
    second.AwaitStart();
    const Held& killed = killsFirst ? first : second;
    const Held& other = killsFirst ? second : first;
    killed.dorn->Kill();
    killed.dorn->Wait();
    // A third dorn finds the same master, whatever the killed dorn has left.
    const Held third = StartHeld("7");
    third.AwaitStart();
    EXPECT_EQ(third.End(), 7);
    EXPECT_EQ(other.End(), 3);
    EXPECT_EQ(third.dorn->Output(), other.dorn->Output());
    EXPECT_FALSE(HasMaster());
  }
}

TEST_F(SharedMaster, EndsWhenAllDornsAreKilled) {
  const Held first = StartHeld("0");
  first.AwaitStart();
  const Held second = StartHeld("0");
  second.AwaitStart();
  first.dorn->Kill();
  second.dorn->Kill();
  // This dorn may find the master before the master has noticed the kills, or while it ends.
  const RunResult next = RunDorn({tool_, "exit", "9"});
  EXPECT_EQ(next.exitCode, 9) << next.errors;
  ExpectNothingLeft();
}

TEST_F(SharedMaster, ThatIsKilledLeavesTheBuildsAndMakesRoomForAnother) {
  const Held first = StartHeld("3");
  first.AwaitStart();
  const DWORD master = MasterOfDorns();
  KillProcess(master);
  ExpectNoMaster();
  const Held second = StartHeld("5");
  second.AwaitStart();
  EXPECT_NE(MasterOfDorns(), master);
  EXPECT_EQ(second.End(), 5);
  // With a master that runs the tools itself, the tool of the first build was killed with its master.
  const int code = first.End();
  EXPECT_TRUE(code == 3 || code == 1) << code;
  EXPECT_EQ(first.dorn->Errors().rfind("DORN: warning: the master has ended before the build; from here on", 0), 0u)
      << first.dorn->Errors();
  EXPECT_EQ(second.dorn->Errors(), "");
  ExpectNoMaster();
}

// A master may enter itself after the dorn that started it was killed. It then finds the record of the next dorn, even
// if that dorn has given its master the same id; or the record of its own dorn, whose events are gone.
TEST_F(SharedMaster, IsNotReplacedByALateOneOfADornThatWasKilled) {
  const Held held = StartHeld("7", {"--id", "same"});
  held.AwaitStart();
  const DWORD master = MasterOfDorns();
  const auto runLateMaster = [this] {
    ChildOptions options = Environment();
    options.environment[kDornVariable] = "1:same";
    const RunResult late = test::Run(
        {ProgramPath("kestrun"), "-master", "-id", "same", "-er", "gone1", "-es", "gone2", "-ef", "gone3"}, options);
    EXPECT_EQ(late.exitCode, 1);
    EXPECT_NE(late.errors.find("the dorn that started this master has gone"), std::string::npos) << late.errors;
  };
  runLateMaster();
  EXPECT_EQ(MasterOfDorns(), master);
  EXPECT_EQ(RunDorn({"--id", "same", tool_, "exit", "4"}).exitCode, 4);
  EXPECT_EQ(held.End(), 7);
  ExpectNoMaster();
  const DornRecord record;
  record->version = DornSession::kVersion;
  record->master = DornSession::MakeMaster(1, 0);
  runLateMaster();
  EXPECT_EQ(MasterOfDorns(), 0u);
  EXPECT_EQ(RunDorn({tool_, "exit", "5"}).exitCode, 5);
  record->version = DornSession::kVersion + 1;
  EXPECT_NE(RunDorn({tool_, "exit", "5"}).errors.find("a dorn of another version runs"), std::string::npos);
}

TEST_F(SharedMaster, IsOneForTwentyDornsAtOnce) {
  std::vector<Child> dorns;
  for (int i = 0; i < 20; ++i) {
    dorns.push_back(Child::Start({ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "print", std::to_string(i), ",",
                                  "exit", std::to_string(i)},
                                 Environment()));
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(dorns[static_cast<std::size_t>(i)].Wait(), i) << dorns[static_cast<std::size_t>(i)].Errors();
    EXPECT_EQ(dorns[static_cast<std::size_t>(i)].Output(), std::to_string(i) + "\n");
  }
  ExpectNoMaster();
}

TEST_F(SharedMaster, KeepsTheLimitOfTheDornThatStartedIt) {
  const Held first = StartHeld("0", {"-j", "2"});
  first.AwaitStart();
  EXPECT_EQ(RunDorn({"-j", "2", tool_, "exit", "0"}).errors, "");
  const RunResult other = RunDorn({"-j", "3", tool_, "exit", "0"});
  EXPECT_EQ(other.exitCode, 0);
  EXPECT_NE(other.errors.find("runs 2 tools at once; -j 3"), std::string::npos) << other.errors;
  const RunResult named = RunDorn({"--id", "another", tool_, "exit", "0"});
  EXPECT_EQ(named.exitCode, 125);
  EXPECT_NE(named.errors.find("error: a master with the id dorn_"), std::string::npos) << named.errors;
  EXPECT_EQ(first.End(), 0);
}

TEST_F(SharedMaster, IsLeftAloneByABuildWithItsOwnWhereTheSystemAllowsTwo) {
  const Held first = StartHeld("0");
  first.AwaitStart();
  const RunResult alone = RunDorn({"--alone", tool_, "env", "KESTRUN_ID"});
  EXPECT_EQ(alone.exitCode, 0);
  const bool isRefused = alone.errors.find("one master at a time") != std::string::npos;
  EXPECT_EQ(first.End(), 0);
  EXPECT_EQ(alone.output == first.dorn->Output(), isRefused) << alone.errors;
}

TEST_F(SharedMaster, GivesEachToolTheEnvironmentOfItsBuild) {
  const Held first = StartHeld("0");
  first.AwaitStart();
  ChildOptions options = Environment();
  options.environment["KESTRUN_TEST_VALUE"] = "of the second";
  const std::string script = WriteScript("$TOOL env KESTRUN_TEST_VALUE\n");
  const RunResult second = test::Run({ProgramPath("dorn"), ProgramPath("kestrun"), "-s", script}, options);
  EXPECT_EQ(second.output, "of the second\n") << second.errors;
  EXPECT_EQ(first.End(), 0);
}

TEST_F(SharedMaster, ServesADornInsideADorn) {
  const std::string dorn = ProgramPath("dorn");
  const RunResult result = RunDorn({dorn, dorn, ProgramPath("kestrun"), tool_, "print", "inner", ",", "exit", "4"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.output, "inner\n");
  EXPECT_EQ(result.errors, "");
  EXPECT_FALSE(HasMaster());
}

}  // namespace
}  // namespace kestrun::test
