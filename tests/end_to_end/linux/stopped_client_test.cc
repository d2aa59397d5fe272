// A client that does nothing for a while, as under a debugger.
#include <fcntl.h>
#include <signal.h>

#include <filesystem>

#include "connector.h"
#include "kill_support.h"
#include "platform/host.h"

namespace kestrun::test {
namespace {

using StoppedClient = Build;

TEST_F(StoppedClient, KeepsItsPlaceWhileThoseOfDeadOnesReturn) {
  WriteSettings("MaxStubs=int:3\n\n[Extensions]\nReclaimPlaces=bool:true\nCancelOrphanedJobs=bool:true\n");
  StartMaster();
  NamedEvent started;
  Child stopped = StartTool({"signal", started.Name(), ",", "print", "late"});
  ASSERT_TRUE(started.Wait(kKillLimitMs));
  kill(static_cast<pid_t>(stopped.Pid()), SIGSTOP);
  // To free the slot of a killed client the master checks the owners of all slots, the stopped client among them.
  for (int i = 0; i < 2; ++i) {
    Child killed = StartTool({"signal", started.Name(), ",", "hold"});
    ASSERT_TRUE(started.Wait(kKillLimitMs));
    killed.Kill();
    PlaceCount(id_).Expect(2);
  }
  kill(static_cast<pid_t>(stopped.Pid()), SIGCONT);
  EXPECT_EQ(stopped.Wait(), 0);
  EXPECT_EQ(stopped.Output(), "late\n");
  PlaceCount(id_).Expect(3);
}

// Takes the turn to connect and goes as many steps further as it is told.
KESTRUN_CHILD(KeepsItsTurn) {
  Connector connector(GetListeningName(words[0]));
  const int steps = std::stoi(words[1]);
  connector.TakeTurn();
  if (steps > 1) connector.Attach();
  if (steps > 2) connector.Ask();
  Say("there");
  AwaitLine();
  return 0;
}

TEST_F(StoppedClient, WithItsTurnToConnectIsNamedAndTheOthersBuildLocally) {
  WriteSettings("IpcTimeout=int:500\n");
  StartMaster();
  for (const int steps : {1, 2, 3}) {
    Child stopped = Child::Self("KeepsItsTurn", {id_, std::to_string(steps)}, WithEnvironment({}));
    ASSERT_EQ(stopped.ReadLine(), "there");
    StopProcess(stopped.Pid());
    const RunResult result = Tool({"exit", "5"});
    EXPECT_EQ(result.exitCode, 5);
    const std::string obstacle = "process " + std::to_string(stopped.Pid()) + " keeps other clients from connecting";
    EXPECT_NE(result.errors.find("KESTRUN: warning: " + obstacle), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find("building locally...\n"), std::string::npos) << result.errors;
    EXPECT_EQ(LogCount(obstacle), 1) << "the log tells it too";
    stopped.Kill();
    stopped.Wait();
    EXPECT_EQ(Tool({"exit", "4"}).errors.find("keeps other clients"), std::string::npos);
  }
}

// Locks the gate of the object table and keeps it.
KESTRUN_CHILD(KeepsTheGate) {
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  const std::string folder = platform::NamedObjectFolder();
  int file = -1;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().filename().string().starts_with(".table-")) file = open(entry.path().c_str(), O_RDWR | O_CLOEXEC);
  }
  struct flock gate {};
  gate.l_type = F_WRLCK;
  gate.l_len = 1;
  Say(event && file >= 0 && fcntl(file, F_OFD_SETLK, &gate) == 0 ? "there" : "not there");
  AwaitLine();
  return 0;
}

TEST_F(StoppedClient, WithTheGateOfTheObjectsKeepsNoProcessThatNeedsNone) {
  StartMaster();
  Child stopped = Child::Self("KeepsTheGate", {}, WithEnvironment({}));
  ASSERT_EQ(stopped.ReadLine(), "there");
  StopProcess(stopped.Pid());
  EXPECT_EQ(Kestrun({"--version"}).errors, "");
  EXPECT_EQ(Kestrun({"--help"}).errors, "");
  const std::string name = "process " + std::to_string(stopped.Pid());
  Child described = StartTool({"exit", "5"});
  EXPECT_EQ(described.Wait(), 1);
  EXPECT_NE(described.Errors().find(name), std::string::npos) << described.Errors();
  WriteSettings("\n[Extensions]\nTransparentTools=bool:true\n");
  EXPECT_EQ(Tool({"exit", "6"}).exitCode, 6) << "it needs no named object to run its tool";
  stopped.Kill();
  stopped.Wait();
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
}

}  // namespace
}  // namespace kestrun::test
