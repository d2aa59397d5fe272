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
constexpr u32 kWaitMs = 600000;
constexpr u32 kRetryMs = 2000;
// The keeper looks for dead clients once a second.
constexpr u64 kSettleMs = 5000;

struct Shape {
  u32 clients = 2;
  u32 plain = 0;      // of the clients the last ones, which know no table and take their slots from the semaphore
  u32 impatient = 0;  // of the clients the first ones, which give up after a millisecond
  i32 places = 1;
  // The dead master is followed by another one of the same id, and a client that finds the first one gone asks once
  // more.
  bool canMasterDie = false;
};

class Places : public Scenario {
 public:
  explicit Places(const Shape& shape) : shape_(shape) {}

  void Start(World& world) override {
    state_.assign(shape_.clients, State::kComing);
    keeper_ = world.AddProcess("master", shape_.canMasterDie, [this] { Serve(); });
    world.RunUntilIdle(keeper_);
    for (u32 i = 0; i < shape_.clients; ++i) {
      // A slot that a client takes without the table is lost if that client dies (docs/protocol.md), so such clients do
      // not die here.
      const bool canDie = i < shape_.clients - shape_.plain && !shape_.canMasterDie;
      world.AddProcess("client " + std::to_string(i + 1), canDie, [this, i] { Take(i); });
    }
    servers_ = {keeper_};
    if (shape_.canMasterDie) servers_.insert(world.AddProcess("successor", false, [this] { Succeed(); }));
    world.SetEnd(servers_, kSettleMs);
  }
  void Check(World& world) override {
    i32 holders = 0;
    for (u32 i = 0; i < shape_.clients; ++i) {
      const ProcessState process = world.GetState(ProcessOf(i));
      const bool lives = process == ProcessState::kAlive || process == ProcessState::kStopped;
      if (lives && state_[i] == State::kHolding) ++holders;
    }
    if (holders > shape_.places) world.Fail("more clients are admitted than there are places");
  }
  void CheckEnd(World& world) override {
    for (u32 i = 0; i < shape_.clients; ++i) {
      const bool lives = !world.WasKilled(ProcessOf(i));
      if (lives && state_[i] != State::kGone) world.Fail("a living client was not admitted");
    }
    if (world.Find(GetAccessName(kId))->count != shape_.places) world.Fail("a place was lost");
  }

 private:
  enum class State { kComing, kHolding, kGone };

  int ProcessOf(u32 client) const { return keeper_ + 1 + static_cast<int>(client); }
  void Serve() {
    try {
      const PlaceKeeper keeper(kId, static_cast<u32>(shape_.places));
      World::Get().SetIdle(true);
      Sleep(INFINITE);
    } catch (const SystemException& e) {
      World::Get().Fail(e.what());
    }
  }
  void Succeed() {
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
    if (!slot.Open(kId, index < shape_.clients - shape_.plain)) return false;
    const bool isImpatient = index < shape_.impatient;
    const ClientSlot::Outcome outcome = slot.Wait(isImpatient ? 1 : kWaitMs);
    if (isImpatient && outcome == ClientSlot::Outcome::kTimeOver) {
      state_[index] = State::kGone;
      return true;
    }
    if (outcome != ClientSlot::Outcome::kAdmitted) return false;
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

  const Shape shape_;
  int keeper_ = 0;
  std::set<int> servers_;
  std::vector<State> state_;
};

TEST(PlaceInterleavings, OfOneClientThatMayBeKilled) {
  Places scenario({.clients = 1});
  ExpectSoundInEveryOrder(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfTwoClientsOneOfWhichMayBeKilled) {
  Places scenario({.clients = 2});
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfTwoClientsOneOfWhichMayBeStopped) {
  Places scenario({.clients = 2});
  ExpectSound(scenario, {.stops = 1});
}

TEST(PlaceInterleavings, OfThreeClientsTwoOfWhichMayBeKilled) {
  Places scenario({.clients = 3});
  ExpectSound(scenario, {.kills = 2});
}

TEST(PlaceInterleavings, OfTwoClientsWhoseMasterMayBeKilled) {
  Places scenario({.clients = 2, .canMasterDie = true});
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfAClientBesideOneWithoutTheTable) {
  Places scenario({.clients = 2, .plain = 1});
  ExpectSound(scenario, {.kills = 1});
}

TEST(PlaceInterleavings, OfTwoClientsOneOfWhichGivesUp) {
  Places scenario({.clients = 2, .impatient = 1});
  ExpectSound(scenario, {.early = 1});
}

TEST(PlaceInterleavings, OfFourClientsForTwoPlacesAtRandom) {
  Places scenario({.clients = 4, .impatient = 2, .places = 2});
  ExpectSoundAtRandom(scenario, {.kills = 1, .early = 2});
}

TEST(PlaceInterleavings, OfThreeClientsAtRandom) {
  Places scenario({.clients = 3, .plain = 1});
  ExpectSoundAtRandom(scenario, {.kills = 2, .stops = 1, .early = 1});
}

}  // namespace
}  // namespace kestrun::interleavings
