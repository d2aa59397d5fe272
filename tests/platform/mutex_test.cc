#include <gtest/gtest.h>

#include <thread>

#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

DWORD WaitOnAnotherThread(HANDLE handle, DWORD timeoutMs) {
  DWORD result = WAIT_FAILED;
  std::thread([&] {
    result = WaitForSingleObject(handle, timeoutMs);
    if (result == WAIT_OBJECT_0) ReleaseMutex(handle);
  }).join();
  return result;
}

TEST(Mutex, IsTakenAndGivenBackByCount) {
  ScopedHandle mutex = CreateMutexA(nullptr, TRUE, nullptr);
  EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(WaitOnAnotherThread(mutex, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitOnAnotherThread(mutex, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(WaitOnAnotherThread(mutex, 0), WAIT_OBJECT_0);
}

TEST(Mutex, OnlyItsOwnerMayReleaseIt) {
  ScopedHandle mutex = CreateMutexA(nullptr, TRUE, nullptr);
  std::thread([&] {
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_OWNER});
  }).join();
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_FALSE(ReleaseMutex(mutex));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_OWNER});
}

TEST(Mutex, TwoHandlesOnANameAreOneMutex) {
  const std::string name = UniqueName();
  ScopedHandle first = CreateMutexA(nullptr, FALSE, name.c_str());
  // Ownership at birth is for the one who makes it.
  ScopedHandle second = CreateMutexA(nullptr, TRUE, name.c_str());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
  EXPECT_FALSE(ReleaseMutex(second));
  EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(second));
}

// The thread's handle is signalled only after its mutexes are abandoned, so no time limit is needed here.
TEST(Mutex, IsAbandonedOnceByAThreadThatEnds) {
  ScopedHandle mutex = CreateMutexA(nullptr, FALSE, nullptr);
  ScopedHandle thread = CreateThread(
      nullptr, 0, [](LPVOID handle) -> DWORD { return WaitForSingleObject(handle, INFINITE); },
      static_cast<HANDLE>(mutex), 0, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(mutex));
}

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

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  long sum = 0;
  const auto add = [&] {
    for (int i = 0; i < 10000; ++i) {
      EnterCriticalSection(&section);
      EnterCriticalSection(&section);
      ++sum;
      LeaveCriticalSection(&section);
      LeaveCriticalSection(&section);
    }
  };
  std::thread other(add);
  add();
  other.join();
  EXPECT_EQ(sum, 20000);
  DeleteCriticalSection(&section);
}

}  // namespace
}  // namespace kestrun::test
