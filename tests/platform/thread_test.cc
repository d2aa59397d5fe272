#include <gtest/gtest.h>

#include <atomic>

#include "platform/win32.h"
#include "scoped_handle.h"

namespace kestrun::test {
namespace {

TEST(Thread, ASuspendedOneRunsOnlyWhenResumed) {
  static std::atomic<bool> ran;
  ran = false;
  DWORD id = 0;
  ScopedHandle thread = CreateThread(
      nullptr, 0,
      [](LPVOID argument) -> DWORD {
        ran = true;
        *static_cast<DWORD*>(argument) ^= GetCurrentThreadId();
        return 0xFFFFFFF0u;
      },
      &id, CREATE_SUSPENDED, &id);
  ASSERT_TRUE(thread);
  EXPECT_NE(id, 0u);
  DWORD code = 0;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, DWORD{STILL_ACTIVE});
  EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
  EXPECT_FALSE(ran);
  EXPECT_EQ(ResumeThread(thread), 1u);
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 0xFFFFFFF0u);
  EXPECT_EQ(id, 0u) << "the thread knew itself by another number";
}

TEST(Thread, APriorityIsRememberedWhateverTheSystemThinksOfIt) {
  const HANDLE self = GetCurrentThread();
  EXPECT_EQ(GetThreadPriority(self), THREAD_PRIORITY_NORMAL);
  for (const int priority : {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_NORMAL}) {
    EXPECT_TRUE(SetThreadPriority(self, priority));
    EXPECT_EQ(GetThreadPriority(self), priority);
  }
  EXPECT_FALSE(SetThreadPriority(self, 1000));
  EXPECT_EQ(GetThreadPriority(nullptr), THREAD_PRIORITY_ERROR_RETURN);
}

TEST(Thread, StorageIsPerThread) {
  static DWORD index;
  index = TlsAlloc();
  ASSERT_NE(index, TLS_OUT_OF_INDEXES);
  EXPECT_EQ(TlsGetValue(index), nullptr);
  int mine = 0;
  EXPECT_TRUE(TlsSetValue(index, &mine));
  ScopedHandle thread = CreateThread(
      nullptr, 0,
      [](LPVOID) -> DWORD {
        const bool empty = TlsGetValue(index) == nullptr;
        TlsSetValue(index, &index);
        return empty && TlsGetValue(index) == &index;
      },
      nullptr, 0, nullptr);
  WaitForSingleObject(thread, INFINITE);
  DWORD fine = 0;
  GetExitCodeThread(thread, &fine);
  EXPECT_EQ(fine, 1u);
  EXPECT_EQ(TlsGetValue(index), &mine);
  EXPECT_TRUE(TlsFree(index));
}

TEST(Thread, InterlockedCallsGiveTheNewValueOrTheOldOne) {
  LONG volatile value = 5;
  EXPECT_EQ(InterlockedIncrement(&value), 6);
  EXPECT_EQ(InterlockedDecrement(&value), 5);
  EXPECT_EQ(InterlockedExchange(&value, 9), 5);
  EXPECT_EQ(InterlockedCompareExchange(&value, 1, 8), 9);
  EXPECT_EQ(InterlockedCompareExchange(&value, 1, 9), 9);
  EXPECT_EQ(value, 1);
}

}  // namespace
}  // namespace kestrun::test
