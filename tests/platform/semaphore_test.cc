#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "scoped_handle.h"

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

}  // namespace
}  // namespace kestrun::test
