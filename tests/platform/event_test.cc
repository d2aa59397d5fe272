#include <gtest/gtest.h>

#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

TEST(Event, ManualResetWakesEverySleeperAndStaysSetUntilReset) {
  ScopedHandle event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  ScopedHandle threads[8];
  HANDLE raw[8];
  for (int i = 0; i < 8; ++i) {
    threads[i] = CreateThread(
        nullptr, 0, [](LPVOID handle) -> DWORD { return WaitForSingleObject(handle, INFINITE); },
        static_cast<HANDLE>(event), 0, nullptr);
    raw[i] = threads[i];
  }
  Sleep(50);  // until they sleep
  SetEvent(event);
  EXPECT_EQ(WaitForMultipleObjects(8, raw, TRUE, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ResetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

}  // namespace
}  // namespace kestrun::test
