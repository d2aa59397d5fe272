// Places, their keeper and its clients. The clients are processes, so that they can be killed at the step where they
// stand.
#include "master/place_keeper.h"

#include <gtest/gtest.h>

#include <future>

#include "client/client_slot.h"
#include "protocol/names.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::Child;
using Outcome = ClientSlot::Outcome;

constexpr u32 kLongMs = 30000;

const char* Describe(Outcome outcome) {
  return outcome == Outcome::kAdmitted ? "admitted" : outcome == Outcome::kTimeOver ? "in vain" : "gone";
}

// Words: the id, "table" or "semaphore".
KESTRUN_CHILD(TakesAPlace) {
  ClientSlot place;
  if (!place.Open(words[0], words[1] == "table")) return 1;
  test::Say("asking");
  test::Say(Describe(place.Wait(600000)));
  test::AwaitLine();
  return 0;
}

class Places : public testing::Test {
 protected:
  static constexpr i32 kPlaces = 3;

  Child StartClient(const char* road = "table") {
    Child child = Child::Self("TakesAPlace", {id_, road});
    EXPECT_EQ(child.ReadLine(), "asking");
    return child;
  }
  Child StartAdmitted(const char* road = "table") {
    Child child = StartClient(road);
    EXPECT_EQ(child.ReadLine(), "admitted");
    return child;
  }
  static void End(Child& child) {
    child.Tell("end");
    EXPECT_EQ(child.Wait(), 0);
  }
  // All places are free within the time, and they are as many as there were. Each is given back at once.
  void ExpectFree(i32 count) {
    for (i32 i = 0; i < count; ++i) EXPECT_TRUE(access_.Wait(kLongMs)) << i;
    EXPECT_FALSE(access_.Wait(0));
    for (i32 i = 0; i < count; ++i) EXPECT_TRUE(access_.Release());
  }

  const std::string id_ = test::UniqueName("places");
  std::unique_ptr<PlaceKeeper> keeper_ = std::make_unique<PlaceKeeper>(id_, kPlaces);
  Semaphore access_{kPlaces, GetAccessName(id_).c_str()};  // the keeper's
};

TEST_F(Places, OfKilledClientsComeBackAndThoseOfLivingOnesStay) {
  Child healthy = StartAdmitted();
  Child killed = StartAdmitted();
  Child old = StartAdmitted("semaphore");
  Child waitsAndDies = StartClient();
  Child waits = StartClient();
  waitsAndDies.Kill();
  killed.Kill();
  EXPECT_EQ(waits.ReadLine(), "admitted");
  EXPECT_FALSE(access_.Wait(0));
  End(waits);
  ExpectFree(1);
  End(old);
  ExpectFree(2);
  End(healthy);
  ExpectFree(kPlaces);
  EXPECT_FALSE(access_.Release());
}

TEST_F(Places, AreServedOnBothRoadsAndNotLostWhenAClientGivesUp) {
  Child holders[] = {StartAdmitted("semaphore"), StartAdmitted(), StartAdmitted()};
  // On another thread: this one owns the keeper's mutex.
  const auto waitInVain = std::async(std::launch::async, [this] {
    ClientSlot impatient;
    EXPECT_TRUE(impatient.Open(id_, true));
    EXPECT_EQ(impatient.Wait(1), Outcome::kTimeOver);
  });
  waitInVain.wait();
  Child old = StartClient("semaphore");
  Child asking = StartClient();
  End(holders[0]);
  End(holders[1]);
  EXPECT_EQ(old.ReadLine(), "admitted");
  EXPECT_EQ(asking.ReadLine(), "admitted");
  End(old);
  End(asking);
  End(holders[2]);
  ExpectFree(kPlaces);
}

TEST_F(Places, GoOnUnderTheNextMasterOfTheId) {
  Child holder = StartAdmitted();
  Child killed = StartAdmitted();
  keeper_ = nullptr;
  keeper_ = std::make_unique<PlaceKeeper>(id_, kPlaces);
  killed.Kill();
  ExpectFree(kPlaces - 1);
  End(holder);
  ExpectFree(kPlaces);
}

// A master that is killed after it has taken a slot and before it has granted it has neither granted nor released the
// slot.
TEST_F(Places, TakenByAMasterThatDiedAreNotLost) {
  Child holder = StartAdmitted();
  ASSERT_TRUE(access_.Wait(0));
  keeper_ = nullptr;
  keeper_ = std::make_unique<PlaceKeeper>(id_, kPlaces);
  ExpectFree(kPlaces - 1);
  End(holder);
  ExpectFree(kPlaces);
}

TEST_F(Places, AreNotWaitedForBehindAMasterThatHasGone) {
  const Child holders[] = {StartAdmitted(), StartAdmitted(), StartAdmitted()};
  Child waits = StartClient();
  keeper_ = nullptr;
  EXPECT_EQ(waits.ReadLine(), "gone");
  // The clients of the master that has gone keep its named objects alive.
  EXPECT_FALSE(ClientSlot().Open(id_, true));
  EXPECT_TRUE(ClientSlot().Open(id_, false));
}

// Whatever other processes write into the table, the number of free slots stays right.
TEST_F(Places, SurviveATableFullOfNonsense) {
  MappedFile region(GetTableName(id_), 0, false);
  const auto view = region.CreateView(0, MappedFile::kWholeSize, true);
  auto& slots = static_cast<PlaceTable*>(view->GetData())->slots;
  u64 noise = 88172645463325252;
  for (auto& slot : slots) {
    noise ^= noise << 13;
    noise ^= noise >> 7;
    noise ^= noise << 17;
    slot = noise | 1;
  }
  Child first = StartClient();  // finds no slot, or one that has been cleared
  EXPECT_EQ(first.ReadLine(), "admitted");
  Condition(GetCallName(id_).c_str()).Signal();
  Child second = StartAdmitted();
  for (auto& slot : slots) slot = MakePlaceWord(1, 1, PlaceState::kReturned);
  Condition(GetCallName(id_).c_str()).Signal();
  End(first);
  End(second);
  ExpectFree(kPlaces);
}

}  // namespace
}  // namespace kestrun
