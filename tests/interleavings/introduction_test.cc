// Connectors and a listener: every order of their steps, with connectors killed or stopped anywhere.
#include <gtest/gtest.h>

#include "explorer.h"
#include "platform/host.h"
#include "scenario_test.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun::interleavings {
namespace {

constexpr const char* kName = "listener";
constexpr u32 kPassMs = 1000;  // MessageDispatcher's wait loop
constexpr u32 kConnectMs = 12000;
// What a connector may cost the listener: the limit of one introduction, and waits for locks.
constexpr u64 kLimitMs = 6000;

class Introduction : public Scenario {
 public:
  explicit Introduction(u32 connectors) : connectors_(connectors) {}

  void Start(World& world) override {
    accepted_.clear();
    joined_.assign(connectors_, "");
    hasFailed_.assign(connectors_, false);
    waitedMs_.assign(connectors_, 0);
    listener_ = world.AddProcess("listener", false, [this] { Serve(); });
    world.RunUntilIdle(listener_);
    for (u32 i = 0; i < connectors_; ++i) {
      world.AddProcess("connector " + std::to_string(i + 1), true, [this, i] { Connect(i); });
    }
    world.SetEnd({listener_}, 2 * kLimitMs);
  }
  void CheckEnd(World& world) override {
    if (!world.IsIdle(listener_)) world.Fail("the listener does not come back");
    for (u32 i = 0; i < connectors_; ++i) CheckConnector(world, i);
    // The listener and one connector: a region that a second connector has opened was never its own.
    for (const auto& region : world.GetRegions()) {
      if (region->name != kName && region->openers.size() > 2)
        world.Fail(("two connectors share " + region->name).c_str());
    }
  }

 private:
  // As IpcAcceptor and HandleLoop do it.
  void Serve() {
    World& world = World::Get();
    const rc_ptr<IpcSocket> socket(new IpcSocket());
    if (!socket->Listen(kName)) world.Fail("no listener");
    rc_ptr<IpcSocket> connection;
    for (;;) {
      const HANDLE handle = platform::IntToHandle(socket->GetWaitHandle());
      world.SetIdle(true);
      const DWORD result = WaitForSingleObject(handle, kPassMs);
      world.SetIdle(false);
      const u64 start = world.GetTime();
      if (result == WAIT_OBJECT_0 && socket->TryAccept(connection) && connection) Keep(connection);
      socket->PrepareNext();
      if (world.GetTime() - start > kLimitMs * connectors_) world.Fail("the listener was held up");
    }
  }
  void Keep(const rc_ptr<IpcSocket>& connection) {
    // Never freed: the connection stands until the run is over.
    new rc_ptr<IpcSocket>(connection);
    const arena::HostScope host;
    if (!accepted_.insert(std::string(connection->GetName().c_str())).second) World::Get().Fail("accepted twice");
  }
  void Connect(u32 index) {
    const rc_ptr<IpcSocket> socket(new IpcSocket());
    const u64 start = World::Get().GetTime();
    const bool isConnected = socket->Connect(kName, kConnectMs);
    {
      const arena::HostScope host;
      hasFailed_[index] = !isConnected;
      waitedMs_[index] = World::Get().GetTime() - start;
      if (isConnected) joined_[index] = std::string(socket->GetName().c_str());
    }
    World::Get().Park();
  }
  void CheckConnector(World& world, u32 index) {
    const int process = listener_ + 1 + static_cast<int>(index);
    // A connector that was stopped for longer than its listener waits may fail.
    if (world.GetState(process) != ProcessState::kAlive || world.WasStopped(process)) return;
    // A connector may also fail if it has waited all its time for the turn of a stopped one.
    if (hasFailed_[index] && waitedMs_[index] >= kConnectMs && AnyWasStopped(world)) return;
    if (hasFailed_[index] || joined_[index].empty()) return world.Fail("a living connector was not served");
    if (!accepted_.contains(joined_[index])) world.Fail(("the listener does not know " + joined_[index]).c_str());
  }

  bool AnyWasStopped(const World& world) const {
    for (u32 i = 0; i < connectors_; ++i) {
      if (world.WasStopped(listener_ + 1 + static_cast<int>(i))) return true;
    }
    return false;
  }

  const u32 connectors_;
  int listener_ = 0;
  std::set<std::string> accepted_;
  std::vector<std::string> joined_;
  std::vector<bool> hasFailed_;
  std::vector<u64> waitedMs_;
};

TEST(IntroductionInterleavings, OfOneConnectorThatMayBeKilled) {
  Introduction scenario(1);
  ExpectSound(scenario, {.kills = 1});
}

TEST(IntroductionInterleavings, OfTwoConnectorsOneOfWhichMayBeKilled) {
  Introduction scenario(2);
  ExpectSound(scenario, {.kills = 1});
}

TEST(IntroductionInterleavings, OfTwoConnectorsOneOfWhichMayBeStopped) {
  Introduction scenario(2);
  ExpectSound(scenario, {.stops = 1});
}

TEST(IntroductionInterleavings, OfTwoConnectorsOnASlowMachine) {
  Introduction scenario(2);
  ExpectSound(scenario, {.early = 2});
}

TEST(IntroductionInterleavings, OfTwoConnectorsBothOfWhichMayBeKilled) {
  Introduction scenario(2);
  ExpectSound(scenario, {.kills = 2});
}

TEST(IntroductionInterleavings, OfThreeConnectorsTwoOfWhichMayBeKilled) {
  Introduction scenario(3);
  ExpectSound(scenario, {.kills = 2});
}

TEST(IntroductionInterleavings, OfThreeConnectorsAtRandom) {
  Introduction scenario(3);
  ExpectSoundAtRandom(scenario, {.kills = 2, .stops = 1, .early = 1});
}

}  // namespace
}  // namespace kestrun::interleavings
