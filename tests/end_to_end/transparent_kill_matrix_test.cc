// The kill matrix (kill_matrix_test.cc) for tools that run as their clients would have run them: a client, its master,
// a tool, a background process or dorn is killed at each step of a client's life. Afterwards every slot is free, the
// work of another client is untouched, and the next one is served.
//
// The master is no parent of such a tool, so it neither ends with its master nor keeps it from stopping. What a killed
// tool has started in the background ends with it where the tool has a job object of its own, and elsewhere goes on, as
// it would without Kestrun, until it has done its work or dorn ends.
#include <functional>
#include <vector>

#include "client/client_slot.h"
#include "client/tool_slot.h"
#include "kill_support.h"
#include "platform/local_stream.h"
#include "platform/tool_process.h"
#include "protocol/place_table.h"
#include "protocol/slot_request.h"

namespace kestrun::test {
namespace {

// A client put together from its parts. It goes as far as it is told, says so and waits. Words: the master's id; the
// step.
KESTRUN_CHILD(StandsStillForASlot) {
  ToolSlot slot;
  ClientSlot tableSlot;
  std::unique_ptr<platform::LocalStream> stream;
  if (words[1] == "granted") {
    if (slot.Take(words[0], {}) != ToolSlot::Outcome::kGranted) return 1;
  } else if (platform::kHasLocalStreams) {
    stream = platform::LocalStream::Connect(GetSlotServerName(words[0]));
    if (!stream) return 2;
    const std::string request =
        MakeSlotRequest({}, {.project = "default", .name = {}, .folder = {}, .tool = "tool", .arguments = {}});
    if (words[1] == "asking" && !stream->Send(request.data(), request.size())) return 3;
    if (words[1] == "half a request" && !stream->Send(request.data(), sizeof(SlotRequestHeader) / 2)) return 4;
  } else if (!tableSlot.OpenTable(GetJobSlotsId(words[0]), "")) {
    return 5;
  }
  Say("there");
  AwaitLine();
  return 0;
}

class TransparentKillMatrix : public TetheredBuild {
 protected:
  // A client that stands at some step. If it waits for a slot, `occupant` is the client that has the slot.
  struct Scene {
    Child client;
    std::unique_ptr<Child> occupant = nullptr;
    bool hasTool = false;
  };

  void WriteTransparentSettings(int jobsAtOnce) {
    WriteSettings("MaxConcurrentJobs=int:" + std::to_string(jobsAtOnce) +
                  "\n\n[Extensions]\nEagerScheduling=bool:true\nTransparentTools=bool:true\n");
  }
  void StartWork(int jobsAtOnce) {
    WriteTransparentSettings(jobsAtOnce);
    StartMaster();
  }

  Child StartStill(const std::string& step) {
    Child child = Child::Self("StandsStillForASlot", {id_, step}, WithEnvironment({}));
    EXPECT_EQ(child.ReadLine(), "there") << step;
    return child;
  }
  Child StartRunning() {
    NamedEvent started;
    Child child = StartTool(SplitWords(RunningWords(started) + " , exit 6"));
    AwaitRunning(started);
    return child;
  }
  Scene Waiting() {
    auto occupant = std::make_unique<Child>(StartStill("granted"));
    return {StartStill("asking"), std::move(occupant)};
  }

  // Every step that a client of a running master can stand at.
  std::vector<std::pair<std::string, std::function<Scene()>>> Steps() {
    std::vector<std::pair<std::string, std::function<Scene()>>> steps{
        {"waiting for a slot", [this] { return Waiting(); }},
        {"granted", [this] { return Scene{StartStill("granted")}; }},
        {"running",
         [this] {
           return Scene{StartRunning(), nullptr, true};
         }},
    };
    for (const char* name : {"connected", "half a request"}) {
      if (platform::kHasLocalStreams) steps.emplace_back(name, [this, name] { return Scene{StartStill(name)}; });
    }
    return steps;
  }

  // Waits until the tool has ended. Its background process has ended with it, or ends when it is told to.
  void ExpectToolGone() {
    EXPECT_TRUE(BecomesTrue([&] { return !release_->IsHeld(); }));
    if (platform::kCanBecomeProgram) {
      EXPECT_TRUE(never_->IsHeld());
      never_->Signal();
    }
    EXPECT_TRUE(BecomesTrue([&] { return !never_->IsHeld(); }));
  }
};

// The bystander keeps the processor busy: if all jobs were idle, the master would let one more client run beside the
// limit, and a lost slot would not be noticed.
TEST_F(TransparentKillMatrix, AClientAtEachStep) {
  StartWork(2);
  NamedEvent started;
  NamedEvent release;
  Child bystander =
      StartTool({"signal", started.Name(), ",", "spin", release.Name(), ",", "print", "untouched", ",", "exit", "3"});
  ASSERT_TRUE(started.Wait(kKillLimitMs));
  for (const auto& [name, arrange] : Steps()) {
    SCOPED_TRACE(name);
    NewTethers();
    Scene scene = arrange();
    StopProcess(scene.client.Pid());
    scene.client.Kill();
    if (scene.hasTool) ExpectToolGone();
    if (scene.occupant) {
      scene.occupant->CloseInput();
      scene.occupant->Wait();
    }
    EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  }
  EXPECT_EQ(LogCount("beside the limit"), 0);
  release.Signal();
  EXPECT_EQ(bystander.Wait(), 3);
  EXPECT_EQ(bystander.Output(), "untouched\n");
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

TEST_F(TransparentKillMatrix, AMasterWithAClientAtEachStep) {
  for (const auto& [name, arrange] : Steps()) {
    SCOPED_TRACE(name);
    StartWork(1);
    NewTethers();
    Scene scene = arrange();
    Master().Kill();
    Master().Wait();
    if (scene.hasTool) {
      EXPECT_TRUE(release_->IsHeld() && never_->IsHeld());
      release_->Signal();
      never_->Signal();
    }
    scene.client.CloseInput();
    EXPECT_EQ(scene.client.Wait(), scene.hasTool ? 6 : 0);
    if (scene.occupant) {
      scene.occupant->CloseInput();
      scene.occupant->Wait();
    }
  }
  StartWork(1);
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

TEST_F(TransparentKillMatrix, AToolOrItsBackgroundProcess) {
  StartWork(1);
  for (const bool killsTool : {true, false}) {
    NewTethers();
    const std::string tool = UniqueName("tool");
    const std::string background = UniqueName("background");
    Child client = StartNoted(tool, background);
    KillProcess(NotedId(killsTool ? tool : background));
    if (killsTool) {
      ExpectToolGone();
    } else {
      EXPECT_TRUE(BecomesTrue([&] { return !never_->IsHeld(); }));
      release_->Signal();
    }
    EXPECT_EQ(client.Wait(), killsTool ? 137 : 6);
    EXPECT_EQ(client.Errors().size(), 50000u);
    EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  }
  EXPECT_EQ(StopMaster(), 0);
  ExpectNothingLeft();
}

// A master that stops does not wait for tools of this kind; the client is killed when the master has ended.
TEST_F(TransparentKillMatrix, AClientWhoseMasterHasStopped) {
  StartWork(1);
  NewTethers();
  Child client = StartRunning();
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_TRUE(release_->IsHeld() && never_->IsHeld());
  client.Kill();
  ExpectToolGone();
  client.Wait();
  ExpectNothingLeft();
}

// All descendants of dorn end with it, also those in the background.
TEST_F(TransparentKillMatrix, DornWithARunningTool) {
  WriteTransparentSettings(1);
  NewTethers();
  NamedEvent started;
  Words words{ProgramPath("dorn"), "--id", id_, ProgramPath("kestrun"), tool_};
  for (const std::string& word : SplitWords(RunningWords(started) + " , exit 6")) words.push_back(word);
  Child dorn = Child::Start(words, WithEnvironment({}));
  ASSERT_TRUE(started.Wait(kKillLimitMs)) << dorn.Errors();
  ASSERT_TRUE(BecomesTrue([&] { return never_->IsHeld(); }));
  dorn.Kill();
  EXPECT_TRUE(BecomesTrue([&] { return !never_->IsHeld() && !release_->IsHeld(); }));
  ExpectNothingLeft();
}

}  // namespace
}  // namespace kestrun::test
