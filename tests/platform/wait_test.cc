#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/win32.h"
#include "scoped_handle.h"

namespace kestrun::test {
namespace {

ScopedHandle NewEvent(bool set = false) {
  return CreateEventA(nullptr, FALSE, set, nullptr);
}

TEST(Wait, TheLowestSignalledIndexWinsAndOnlyItIsUsedUp) {
  std::vector<ScopedHandle> events;
  std::vector<HANDLE> handles;
  for (int i = 0; i < MAXIMUM_WAIT_OBJECTS; ++i) {
    events.push_back(NewEvent());
    handles.push_back(events.back());
  }
  const DWORD count = MAXIMUM_WAIT_OBJECTS;
  for (const int index : {63, 17, 0, 42}) SetEvent(events[static_cast<std::size_t>(index)]);
  for (const DWORD index : {0u, 17u, 42u, 63u}) {
    EXPECT_EQ(WaitForMultipleObjects(count, handles.data(), FALSE, 1000), WAIT_OBJECT_0 + index);
  }
  EXPECT_EQ(WaitForMultipleObjects(count, handles.data(), FALSE, 0), WAIT_TIMEOUT);
}

TEST(Wait, ImpossibleArgumentsFail) {
  ScopedHandle event = NewEvent();
  std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
  EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS + 1, handles.data(), FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
  EXPECT_EQ(WaitForMultipleObjects(0, handles.data(), FALSE, 0), WAIT_FAILED);
  handles[1] = nullptr;
  EXPECT_EQ(WaitForMultipleObjects(2, handles.data(), FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
  EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
}

TEST(Wait, ForSeveralEndsWithTheReleaseOfAMutex) {
  ScopedHandle mutex = CreateMutexA(nullptr, TRUE, nullptr);
  ScopedHandle event = NewEvent();
  DWORD result = WAIT_FAILED;
  std::thread waiter([&] {
    const HANDLE both[] = {event, mutex};
    result = WaitForMultipleObjects(2, both, FALSE, 30000);
  });
  Sleep(50);  // until it sleeps
  EXPECT_TRUE(ReleaseMutex(mutex));
  waiter.join();
  EXPECT_EQ(result, WAIT_OBJECT_0 + 1);
}

TEST(Wait, ALimitIsKept) {
  ScopedHandle events[] = {NewEvent(), NewEvent()};
  const HANDLE handles[] = {events[0], events[1]};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForSingleObject(events[0], 50), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 50), WAIT_TIMEOUT);
  // A tick of the system's clock early is allowed, as on Windows.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(65));
}

TEST(Wait, SignalObjectAndWaitGivesUpAMutexAndAnEventKeepsTheAnswer) {
  ScopedHandle mutex = CreateMutexA(nullptr, TRUE, nullptr);
  ScopedHandle changed = NewEvent();
  std::thread other([&] {
    EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
    SetEvent(changed);
    ReleaseMutex(mutex);
  });
  EXPECT_EQ(SignalObjectAndWait(mutex, changed, INFINITE, FALSE), WAIT_OBJECT_0);
  other.join();
  // A mutex that isn't ours ends it before the wait.
  SetEvent(changed);
  EXPECT_EQ(SignalObjectAndWait(mutex, changed, INFINITE, FALSE), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_OWNER});
  EXPECT_EQ(WaitForSingleObject(changed, 0), WAIT_OBJECT_0);
}

struct Sleeper {
  HANDLE started;
  HANDLE awaited;
};

TEST(Wait, OutlivesTheHandleThatItWasBegunWith) {
  ScopedHandle started = NewEvent();
  ScopedHandle awaited = NewEvent();
  HANDLE other = nullptr;
  ASSERT_TRUE(
      DuplicateHandle(GetCurrentProcess(), awaited, GetCurrentProcess(), &other, 0, FALSE, DUPLICATE_SAME_ACCESS));
  ScopedHandle signaller = other;
  Sleeper sleeper{started, awaited};
  ScopedHandle thread = CreateThread(
      nullptr, 0,
      [](LPVOID argument) -> DWORD {
        const auto& mine = *static_cast<Sleeper*>(argument);
        // Both objects are looked up before the first is signalled.
        return SignalObjectAndWait(mine.started, mine.awaited, INFINITE, FALSE);
      },
      &sleeper, 0, nullptr);
  ASSERT_EQ(WaitForSingleObject(started, INFINITE), WAIT_OBJECT_0);
  awaited.Close();
  SetEvent(signaller);
  ASSERT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  DWORD result = WAIT_FAILED;
  EXPECT_TRUE(GetExitCodeThread(thread, &result));
  EXPECT_EQ(result, WAIT_OBJECT_0);
}

TEST(Wait, AMutexAndAThreadCanBeAmongSeveral) {
  ScopedHandle mutex = CreateMutexA(nullptr, FALSE, nullptr);
  ScopedHandle event = NewEvent();
  ScopedHandle owner = CreateThread(
      nullptr, 0, [](LPVOID handle) -> DWORD { return WaitForSingleObject(handle, INFINITE); },
      static_cast<HANDLE>(mutex), 0, nullptr);
  const HANDLE ended[] = {event, owner};
  EXPECT_EQ(WaitForMultipleObjects(2, ended, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
  const HANDLE abandoned[] = {event, mutex};
  EXPECT_EQ(WaitForMultipleObjects(2, abandoned, FALSE, INFINITE), WAIT_ABANDONED_0 + 1);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "it is abandoned once";
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_TRUE(ReleaseMutex(mutex));
}

TEST(Thread, ASuspendedOneRunsOnlyWhenResumed) {
  static std::atomic<bool> ran;
  ran = false;
  ScopedHandle thread = CreateThread(
      nullptr, 0,
      [](LPVOID) -> DWORD {
        ran = true;
        return 0xFFFFFFF0u;
      },
      nullptr, CREATE_SUSPENDED, nullptr);
  DWORD code = 0;
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
  EXPECT_FALSE(ran);
  EXPECT_EQ(ResumeThread(thread), 1u);
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 0xFFFFFFF0u);
}

}  // namespace
}  // namespace kestrun::test
