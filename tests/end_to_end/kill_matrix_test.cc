// Kills a client, its master, a tool, a background process or dorn at each step of a client's life. Afterwards no
// process of that job is left, all client slots are free, the work of another client is untouched, and the next client
// is served.
#include <functional>
#include <vector>

#include "client/client_slot.h"
#include "connector.h"
#include "kill_support.h"
#include "messaging/ipc_channel.h"
#include "protocol/protocol.h"
#include "transport/shared/ipc_stream_adapter.h"

namespace kestrun::test {
namespace {

constexpr int kPlaces = 4;

// A client put together from its parts. It is admitted, goes as far as it is told, says so and waits.
// Words: the master's id; the step; for steps with a job the tool and its arguments.
KESTRUN_CHILD(StandsStill) {
  ClientSlot place;
  if (!place.Open(words[0], true) || place.Wait(kKillLimitMs) != ClientSlot::Outcome::kAdmitted) return 1;
  const std::string name = GetListeningName(words[0]);
  const std::string step = words[1];
  if (step.rfind("introduction ", 0) == 0) {
    Connector connector(name);
    const int steps = step.back() - '0';
    if (steps > 0) connector.TakeTurn();
    if (steps > 1) connector.Attach();
    if (steps > 2) connector.Ask();
    if (steps > 3) connector.AwaitReply();
    if (steps > 4) connector.TakeReply();
    Say("there");
    AwaitLine();
    return 0;
  }
  const rc_ptr<IpcSocket> socket = new IpcSocket;
  if (!socket->Connect(name, kKillLimitMs)) return 2;
  if (step == "half a request") {
    IpcSocket::StreamAdapter stream(socket);
    stream.Write("\xE8\3\0\0head of a message", 20);
  }
  if (words.size() > 2) {
    // Not destroyed: it would take away what comes back.
    auto* const channel = new IpcChannel(socket);
    channel->AddRef();
    const rc_ptr<Message> request = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
    request->AddString(SEG_TOOL, words[2]).AddString(SEG_ARGUMENTS, words[3]).AddString(SEG_WORKING_DIR, ".");
    if (!channel->Send(request)) return 3;
  }
  if (step == "half a result") {
    char part[100];
    if (socket->Read(part, sizeof part, kNoLimit).count == 0) return 4;
  }
  Say("there");
  AwaitLine();
  return 0;
}

class KillMatrix : public TetheredBuild {
 protected:
  // A client that stands at some step, and what the test has to do after the kill to release the rest of the scene.
  struct Scene {
    Child client;
    std::function<void()> after = [] {};
    bool isInTheWay = true;  // of other clients: it holds the turn to connect, the last thread, or every place
  };

  void StartWork(int jobsAtOnce = 1) { KilledBuild::StartWork(kPlaces, jobsAtOnce); }

  Child StartStill(Words words) {
    words.insert(words.begin(), id_);
    Child child = Child::Self("StandsStill", words, WithEnvironment({}));
    EXPECT_EQ(child.ReadLine(), "there") << words[1];
    return child;
  }
  // The client of a tool that waits for `release`, with a background process that waits for `never`.
  Child StartRunning(bool isReal) {
    NamedEvent started;
    const std::string arguments = RunningWords(started);
    Child child = isReal ? StartTool(SplitWords(arguments)) : StartStill({"job", tool_, arguments});
    AwaitRunning(started);
    return child;
  }

  // Waits until the client with this process id has this state in the table of client slots.
  void AwaitPlaceState(unsigned long pid, PlaceState state) {
    MappedFile region(GetTableName(id_), 0, false);
    const auto view = region.CreateView(0, MappedFile::kWholeSize, true);
    const auto& slots = static_cast<PlaceTable*>(view->GetData())->slots;
    EXPECT_TRUE(BecomesTrue([&] {
      return std::any_of(std::begin(slots), std::end(slots),
                         [&](u64 word) { return word >> 32 == pid && GetPlaceState(word) == state; });
    }));
  }

  Scene WaitingForAPlace() {
    const std::shared_ptr<Semaphore> access(new Semaphore(kPlaces, GetAccessName(id_).c_str()));
    auto taken = std::make_shared<int>(0);
    while (access->Wait(0)) ++*taken;
    Scene scene{StartTool({"exit", "0"})};
    AwaitPlaceState(scene.client.Pid(), PlaceState::kAsking);
    scene.after = [access, taken] {
      for (; *taken > 0; --*taken) access->Release();
    };
    return scene;
  }
  Scene BeforeItConnects() {
    const std::shared_ptr<NamedMutexLock> turn(new NamedMutexLock(GetListeningName(id_) + ".lck"));
    Scene scene{StartTool({"exit", "0"})};
    AwaitPlaceState(scene.client.Pid(), PlaceState::kGranted);
    scene.after = [held = std::make_shared<std::shared_ptr<NamedMutexLock>>(turn)] { held->reset(); };
    return scene;
  }
  Scene Queued() {
    const int scheduled = LogCount("Scheduled build-job");
    auto occupant = std::make_shared<Child>(StartRunning(true));
    Scene scene{StartStill({"job", tool_, "signal " + neverStarted_.Name()})};
    EXPECT_TRUE(BecomesTrue([&] { return LogCount("Scheduled build-job") == scheduled + 2; }));
    const int cancelled = LogCount("Jobs of a lost stub cancelled");
    scene.after = [this, occupant, cancelled] {
      // A live master cancels the job before a thread is free to run it.
      EXPECT_TRUE(
          BecomesTrue([&] { return LogCount("Jobs of a lost stub cancelled") > cancelled || Master().EndsWithin(0); }));
      release_->Signal();
      occupant->Wait();
      EXPECT_FALSE(neverStarted_.Wait(0));
    };
    return scene;
  }

  // Every step that a client of a running master can stand at.
  std::vector<std::pair<std::string, std::function<Scene()>>> Steps() {
    std::vector<std::pair<std::string, std::function<Scene()>>> steps{
        {"waiting for a place", [this] { return WaitingForAPlace(); }},
        {"admitted", [this] { return BeforeItConnects(); }},
    };
    for (const char* name : {"introduction 1", "introduction 2", "introduction 3", "introduction 4", "introduction 5",
                             "idle", "half a request"}) {
      const bool hasTurn = std::string(name).rfind("introduction", 0) == 0;
      steps.emplace_back(name, [this, name, hasTurn] { return Scene{StartStill({name}), [] {}, hasTurn}; });
    }
    steps.emplace_back("queued", [this] { return Queued(); });
    steps.emplace_back("running", [this] { return Scene{StartRunning(false)}; });
    steps.emplace_back("half a result", [this] {
      return Scene{StartStill({"half a result", tool_, "fill 2000000 1000"}), [] {}, false};
    });
    return steps;
  }

  // Starts dorn with a build of one tool; the words are the tool's arguments.
  Child StartDorn(const std::string& toolWords) {
    Words words{ProgramPath("dorn"), "--id", id_, ProgramPath("kestrun"), tool_};
    for (const std::string& word : SplitWords(toolWords)) words.push_back(word);
    return Child::Start(words, WithEnvironment({}));
  }

  void ExpectJobGone() {
    EXPECT_TRUE(BecomesTrue([&] { return !never_->IsHeld() && !release_->IsHeld(); }));
  }

  NamedEvent neverStarted_;
};

TEST_F(KillMatrix, AClientAtEachStep) {
  StartWork(2);
  NamedEvent started;
  NamedEvent release;
  Child bystander =
      StartTool({"signal", started.Name(), ",", "await", release.Name(), ",", "print", "untouched", ",", "exit", "3"});
  ASSERT_TRUE(started.Wait(kKillLimitMs));
  for (const auto& [name, arrange] : Steps()) {
    SCOPED_TRACE(name);
    NewTethers();
    Scene scene = arrange();
    StopProcess(scene.client.Pid());
    // A client that is stopped at this step does not keep others from being served.
    if (!scene.isInTheWay) {
      EXPECT_EQ(Tool({"exit", "5"}).exitCode, 5);
    }
    scene.client.Kill();
    scene.after();
    ExpectJobGone();
    PlaceCount(id_).Expect(kPlaces - 1);
    EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  }
  release.Signal();
  EXPECT_EQ(bystander.Wait(), 3);
  EXPECT_EQ(bystander.Output(), "untouched\n");
  PlaceCount(id_).Expect(kPlaces);
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

TEST_F(KillMatrix, AMasterWithAClientAtEachStep) {
  for (const auto& [name, arrange] : Steps()) {
    SCOPED_TRACE(name);
    StartWork();
    NewTethers();
    Scene scene = arrange();
    Master().Kill();
    // The master's tools end with it. A client that runs its job itself holds the tethers again, until the tool is
    // released.
    if (name != "queued") ExpectJobGone();
    release_->Signal();
    scene.after();
    scene.client.CloseInput();
    scene.client.Wait();
    ExpectJobGone();
  }
  StartWork();
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  PlaceCount(id_).Expect(kPlaces);
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

TEST_F(KillMatrix, AToolOrItsBackgroundProcess) {
  StartWork();
  for (const bool killsTool : {true, false}) {
    NewTethers();
    const std::string tool = UniqueName("tool");
    const std::string background = UniqueName("background");
    Child client = StartNoted(tool, background);
    KillProcess(NotedId(killsTool ? tool : background));
    if (!killsTool) {
      EXPECT_TRUE(BecomesTrue([&] { return !never_->IsHeld(); }));
      release_->Signal();
    }
    EXPECT_EQ(client.Wait(), killsTool ? 137 : 6);
    ExpectJobGone();
    EXPECT_EQ(client.Errors().size(), 50000u);  // what it wrote until then
    PlaceCount(id_).Expect(kPlaces);
  }
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

// A master that has been told to stop waits for the tool that runs.
TEST_F(KillMatrix, SomebodyWhileTheMasterStops) {
  for (const bool killsMaster : {false, true}) {
    StartWork();
    NewTethers();
    Child client = StartRunning(false);
    const int stops = LogCount("Build Stopped");
    SignalStop();
    ASSERT_TRUE(BecomesTrue([&] { return LogCount("Build Stopped") > stops; }));
    if (killsMaster) {
      Master().Kill();
    } else {
      client.Kill();
      // The tool has ended with its client, so the master need not wait any longer.
      EXPECT_EQ(Master().Wait(20000), 0);
    }
    ExpectJobGone();
    client.CloseInput();
    client.Wait();
    ExpectNothingLeft();
  }
}

// At the moment of the kill the build command has ended, the master waits for the tool of another client, and dorn
// waits for the master.
TEST_F(KillMatrix, DornWhileTheMasterStops) {
  WriteSettings("");
  NewTethers();
  NamedEvent started;
  NamedEvent end;
  Child dorn = StartDorn("signal " + started.Name() + " , await " + end.Name());
  ASSERT_TRUE(started.Wait(kKillLimitMs)) << dorn.Errors();
  Child client = StartRunning(false);
  end.Signal();
  ASSERT_TRUE(BecomesTrue([&] { return LogCount("Build Stopped") == 1; }));
  EXPECT_FALSE(dorn.EndsWithin(0));
  dorn.Kill();
  ExpectJobGone();
  client.CloseInput();
  client.Wait();
  ExpectNothingLeft();
}

// The build command holds the only client slot. A client outside of the build, which does not end with dorn, waits for
// that slot.
TEST_F(KillMatrix, DornWithAClientThatWaitsForAPlace) {
  WriteSettings("MaxStubs=int:1\n\n[Extensions]\nReclaimPlaces=bool:true\n");
  NamedEvent started;
  Child dorn =
      StartDorn("signal " + started.Name() + " , background daemon await " + neverStarted_.Name() + " then hold");
  ASSERT_TRUE(started.Wait(kKillLimitMs)) << dorn.Errors();
  Child waiting = StartTool({"exit", "0"});
  AwaitPlaceState(waiting.Pid(), PlaceState::kAsking);
  dorn.Kill();
  // The build command dies with dorn, and the master a moment later: its last act may be to grant the slot.
  if (waiting.Wait() == 0) {
    EXPECT_NE(waiting.Errors().find("KESTRUN: warning: building locally...\n"), std::string::npos);
  } else {
    EXPECT_EQ(waiting.Errors(), "KESTRUN: error: the master instance of Kestrun has ended - aborting...\n");
  }
  ExpectNothingLeft();
}

}  // namespace
}  // namespace kestrun::test
