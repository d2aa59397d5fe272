#include <gtest/gtest.h>

#include <thread>

#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

KESTRUN_CHILD(OwnsMutexes) {
  ScopedHandle mutexes[2];
  for (std::size_t i = 0; i < words.size(); ++i) {
    mutexes[i] = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, words[i].c_str());
    if (WaitForSingleObject(mutexes[i], INFINITE) != WAIT_OBJECT_0) return 1;
  }
  // The one taken last loses its handle while it is still owned.
  if (words.size() == 2) mutexes[1].Close();
  Say("owned");
  AwaitLine();
  return 0;
}

TEST(Mutex, AWaiterIsToldThatTheOwningProcessWasKilled) {
  const std::string name = UniqueName();
  ScopedHandle mutex = CreateMutexA(nullptr, FALSE, name.c_str());
  for (int round = 0; round < 5; ++round) {
    Child owner = Child::Self("OwnsMutexes", {name});
    ASSERT_EQ(owner.ReadLine(), "owned");
    ASSERT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
    DWORD result = WAIT_FAILED;
    std::thread waiter([&] {
      result = WaitForSingleObject(mutex, 30000);
      ReleaseMutex(mutex);
    });
    owner.Kill();
    waiter.join();
    EXPECT_EQ(result, WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(mutex, 30000), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
  }
}

TEST(Mutex, AnOwnerThatClosedOneHandleAndDiesStillAbandonsTheOther) {
  const std::string names[] = {UniqueName(), UniqueName()};
  ScopedHandle older = CreateMutexA(nullptr, FALSE, names[0].c_str());
  ScopedHandle newer = CreateMutexA(nullptr, FALSE, names[1].c_str());
  Child owner = Child::Self("OwnsMutexes", {names[0], names[1]});
  ASSERT_EQ(owner.ReadLine(), "owned");
  EXPECT_EQ(WaitForSingleObject(newer, 0), WAIT_TIMEOUT);
  owner.Kill();
  EXPECT_EQ(WaitForSingleObject(older, 30000), WAIT_ABANDONED);
  EXPECT_EQ(WaitForSingleObject(newer, 30000), WAIT_ABANDONED);
}

// A waiter that sleeps takes the lock by another call than one that finds it free. ThreadSanitizer has to see both.
TEST(Mutex, TakenWithALimitExcludesOtherThreads) {
  ScopedHandle mutex = CreateMutexA(nullptr, FALSE, nullptr);
  long sum = 0;
  const auto add = [&] {
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(WaitForSingleObject(mutex, 60000), WAIT_OBJECT_0);
      ++sum;
      SwitchToThread();
      EXPECT_TRUE(ReleaseMutex(mutex));
    }
  };
  std::thread other(add);
  add();
  other.join();
  EXPECT_EQ(sum, 400);
}

TEST(Mutex, IsNotTakenByAWaiterWhoseLimitHasPassed) {
  ScopedHandle mutex = CreateMutexA(nullptr, TRUE, nullptr);
  DWORD result = WAIT_FAILED;
  std::thread([&] { result = WaitForSingleObject(mutex, 20); }).join();
  EXPECT_EQ(result, WAIT_TIMEOUT);
  EXPECT_TRUE(ReleaseMutex(mutex));
  std::thread([&] {
    result = WaitForSingleObject(mutex, 20);
    ReleaseMutex(mutex);
  }).join();
  EXPECT_EQ(result, WAIT_OBJECT_0);
}

}  // namespace
}  // namespace kestrun::test
