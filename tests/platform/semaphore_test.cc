#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

TEST(Semaphore, EachUnitSatisfiesExactlyOneWait) {
  constexpr int kConsumers = 6;
  constexpr int kUnits = 20000;
  ScopedHandle semaphore = CreateSemaphoreA(nullptr, 0, kUnits + kConsumers, nullptr);
  ScopedHandle never = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  std::atomic<int> taken{0};
  const auto consume = [&](bool alone) {
    const HANDLE both[] = {never, semaphore};
    do {
      if (alone) {
        EXPECT_EQ(WaitForSingleObject(semaphore, INFINITE), WAIT_OBJECT_0);
      } else {
        EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
      }
    } while (taken.fetch_add(1) < kUnits);
  };
  std::vector<std::thread> consumers;
  for (int i = 0; i < kConsumers; ++i) consumers.emplace_back(consume, i % 2 == 0);
  // The last units, one a consumer, are what each of them ends with; a lost one leaves a consumer asleep for good.
  for (int i = 0; i < kUnits + kConsumers; ++i) ASSERT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
  for (std::thread& consumer : consumers) consumer.join();
  EXPECT_EQ(taken, kUnits + kConsumers);
  EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
}

KESTRUN_CHILD(TakesUnits) {
  ScopedHandle semaphore = OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, words[0].c_str());
  ScopedHandle done = OpenEventA(EVENT_ALL_ACCESS, FALSE, words[1].c_str());
  const HANDLE both[] = {done, semaphore};
  int taken = 0;
  while (WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) ++taken;
  Say(std::to_string(taken));
  return 0;
}

TEST(Semaphore, ProcessesShareTheUnitsExactly) {
  constexpr int kUnits = 5000;
  const std::string name = UniqueName();
  const std::string doneName = UniqueName();
  ScopedHandle semaphore = CreateSemaphoreA(nullptr, 0, kUnits, name.c_str());
  ScopedHandle done = CreateEventA(nullptr, TRUE, FALSE, doneName.c_str());
  std::vector<Child> children;
  for (int i = 0; i < 3; ++i) children.push_back(Child::Self("TakesUnits", {name, doneName}));
  int own = 0;
  for (int i = 0; i < kUnits; ++i) {
    ASSERT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
    if (i % 3 == 0 && WaitForSingleObject(semaphore, 0) == WAIT_OBJECT_0) ++own;
  }
  while (WaitForSingleObject(semaphore, 0) == WAIT_OBJECT_0) ++own;
  SetEvent(done);
  int taken = own;
  for (Child& child : children) taken += std::stoi(child.ReadLine());
  // A unit that a child took after the count above reached zero is in its sum; none is left or doubled.
  EXPECT_EQ(taken, kUnits);
}

}  // namespace
}  // namespace kestrun::test
