// Clients and the keeper of their slots: every order of their steps, with clients killed or stopped anywhere.
#include <gtest/gtest.h>

#include "client/client_slot.h"
#include "explorer.h"
#include "master/place_keeper.h"
#include "protocol/names.h"
#include "scenario_test.h"

namespace kestrun::interleavings {
namespace {

constexpr const char* kId = "id";
constexpr i32 kPlaces = 1;
constexpr u32 kWaitMs = 600000;
constexpr u32 kRetryMs = 2000;
// The keeper looks for dead clients once a second.
constexpr u64 kSettleMs = 5000;

class Places : public Scenario {
 public:
  // The last `plain` clients take their slots from the semaphore, as clients do that know no table. A master that may
  // die has a successor of the same id; a client that finds it gone asks once more.
  Places(u32 clients, u32 plain, bool canMasterDie = false)
      : clients_(clients), plain_(plain), canMasterDie_(canMasterDie) {}

  void Start(World& world) override {
    state_.assign(clients_, State::kComing);
    keeper_ = world.AddProcess("master", canMasterDie_, [] { Serve(); });
    world.RunUntilIdle(keeper_);
    for (u32 i = 0; i < clients_; ++i) {
      // What a client without the table holds is lost with it, as docs/protocol.md says.
      const bool canDie = i < clients_ - plain_ && !canMasterDie_;
      world.AddProcess("client " + std::to_string(i + 1), canDie, [this, i] { Take(i); });
    }
    servers_ = {keeper_};
    if (canMasterDie_) servers_.insert(world.AddProcess("successor", false, [] { Succeed(); }));
    world.SetEnd(servers_, kSettleMs);
  }
  void Check(World& world) override {
    i32 holders = 0;
    for (u32 i = 0; i < clients_; ++i) {
      const ProcessState process = world.GetState(ProcessOf(i));
      const bool lives = process == ProcessState::kAlive || process == ProcessState::kStopped;
      if (lives && state_[i] == State::kHolding) ++holders;
    }
    if (holders > kPlaces) world.Fail("more clients are admitted than there are places");
  }
  void CheckEnd(World& world) override {
    for (u32 i = 0; i < clients_; ++i) {
      const bool lives = !world.WasKilled(ProcessOf(i));
      if (lives && state_[i] != State::kGone) world.Fail("a living client was not admitted");
    }
    if (world.Find(GetAccessName(kId))->count != kPlaces) world.Fail("a place was lost");
  }

 private:
  enum class State { kComing, kHolding, kGone };

  int ProcessOf(u32 client) const { return keeper_ + 1 + static_cast<int>(client); }
  static void Serve() {
    const PlaceKeeper keeper(kId, kPlaces);
    World::Get().SetIdle(true);
    Sleep(INFINITE);
  }
  static void Succeed() {
    {
      Mutex keeper(GetKeeperName(kId).c_str());
      World::Get().SetIdle(true);
      keeper.Lock(INFINITE);
      World::Get().SetIdle(false);
      keeper.Unlock();
    }
    Serve();
  }
  void Take(u32 index) {
    while (!TryTake(index)) {
      if (!World::Get().WasKilled(keeper_)) return World::Get().Fail("a client was turned away by a living master");
      Sleep(kRetryMs);
    }
  }
  bool TryTake(u32 index) {
    ClientSlot slot;
    if (!slot.Open(kId, index < clients_ - plain_)) return false;
    if (slot.Wait(kWaitMs) != ClientSlot::Outcome::kAdmitted) return false;
    state_[index] = State::kHolding;
    // A step of the tool, so that others can come in between.
    SwitchProcess();
    state_[index] = State::kGone;
    return true;
  }
  static void SwitchProcess() {
    const UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    SetEvent(event.Get());
  }

  const u32 clients_;
  const u32 plain_;
  const bool canMasterDie_;
  int keeper_ = 0;
  std::set<int> servers_;
  std::vector<State> state_;
};

TEST(PlaceInterleavings, OfOneClientThatMayBeKilled) {
  Places scenario(1, 0);
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfTwoClientsOneOfWhichMayBeKilled) {
  Places scenario(2, 0);
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfTwoClientsOneOfWhichMayBeStopped) {
  Places scenario(2, 0);
  ExpectSound(scenario, {.stops = 1});
}

TEST(PlaceInterleavings, OfThreeClientsTwoOfWhichMayBeKilled) {
  Places scenario(3, 0);
  ExpectSound(scenario, {.kills = 2});
}

TEST(PlaceInterleavings, OfTwoClientsWhoseMasterMayBeKilled) {
  Places scenario(2, 0, true);
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfAClientBesideOneWithoutTheTable) {
  Places scenario(2, 1);
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfThreeClientsAtRandom) {
  Places scenario(3, 1);
  ExpectSoundAtRandom(scenario, {.kills = 2, .stops = 1, .early = 1});
}

}  // namespace
}  // namespace kestrun::interleavings
