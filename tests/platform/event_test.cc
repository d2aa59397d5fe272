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
  SetEvent(event);
  EXPECT_EQ(WaitForMultipleObjects(8, raw, TRUE, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ResetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

// Answers each signal on the first event by one on the second.
KESTRUN_CHILD(EventEcho) {
  ScopedHandle ask = OpenEventA(EVENT_ALL_ACCESS, FALSE, words[0].c_str());
  ScopedHandle answer = OpenEventA(EVENT_ALL_ACCESS, FALSE, words[1].c_str());
  if (!ask || !answer) return 1;
  for (int left = std::stoi(words[2]); left > 0; --left) {
    if (WaitForSingleObject(ask, INFINITE) != WAIT_OBJECT_0 || !SetEvent(answer)) return 2;
  }
  return 0;
}

TEST(Event, EverySignalReachesTheOtherProcess) {
  constexpr int kRounds = 2000;
  const std::string askName = UniqueName();
  const std::string answerName = UniqueName();
  ScopedHandle never = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  ScopedHandle ask = CreateEventA(nullptr, FALSE, FALSE, askName.c_str());
  ScopedHandle answer = CreateEventA(nullptr, FALSE, FALSE, answerName.c_str());
  Child child = Child::Self("EventEcho", {askName, answerName, std::to_string(kRounds)});
  const HANDLE both[] = {never, answer};
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_TRUE(SetEvent(ask));
    // Alone and among others, which are two ways to sleep.
    if (i % 2 == 0) {
      ASSERT_EQ(WaitForSingleObject(answer, 30000), WAIT_OBJECT_0);
    } else {
      ASSERT_EQ(WaitForMultipleObjects(2, both, FALSE, 30000), WAIT_OBJECT_0 + 1);
    }
  }
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(WaitForSingleObject(answer, 0), WAIT_TIMEOUT);
}

}  // namespace
}  // namespace kestrun::test
