#include <gtest/gtest.h>
#include <sys/resource.h>

#include "../../scoped_handle.h"
#include "platform/win32.h"

namespace kestrun::test {
namespace {

int NiceOfThisThread() {
  return getpriority(PRIO_PROCESS, 0);
}

// The priority of a user who can't raise it again is not lowered either, so this holds for every user.
TEST(ThreadPriority, IsTakenBackInFullAndNotHandedDown) {
  const int before = NiceOfThisThread();
  const HANDLE self = GetCurrentThread();
  ASSERT_TRUE(SetThreadPriority(self, THREAD_PRIORITY_LOWEST));
  EXPECT_GE(NiceOfThisThread(), before);
  ScopedHandle thread = CreateThread(
      nullptr, 0, [](LPVOID) -> DWORD { return static_cast<DWORD>(NiceOfThisThread() + 100); }, nullptr, 0, nullptr);
  WaitForSingleObject(thread, INFINITE);
  DWORD nice = 0;
  GetExitCodeThread(thread, &nice);
  EXPECT_EQ(static_cast<int>(nice) - 100, before);
  ASSERT_TRUE(SetThreadPriority(self, THREAD_PRIORITY_NORMAL));
  EXPECT_EQ(NiceOfThisThread(), before);
}

}  // namespace
}  // namespace kestrun::test
