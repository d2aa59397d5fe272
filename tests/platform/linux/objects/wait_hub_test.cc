// More processes wait for several objects at once than there are hubs.
#include <gtest/gtest.h>

#include <memory>

#include "../../scoped_handle.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

KESTRUN_CHILD(WaitsForTwoEvents) {
  const ScopedHandle own = OpenEventA(SYNCHRONIZE, FALSE, words[0].c_str());
  const ScopedHandle common = OpenEventA(SYNCHRONIZE, FALSE, words[1].c_str());
  const HANDLE handles[] = {own, common};
  for (DWORD index = 0; index == 0;) {
    Say("waits");
    index = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    Say(std::to_string(index));
  }
  return 0;
}

// The layer offers a wait for all only where each object stays signalled; the system itself offers more.
TEST(WaitHubs, AreNotUsedForAllOfObjectsThatAreUsedUp) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, TRUE, nullptr);
  const HANDLE handles[] = {event};
  EXPECT_EQ(WaitForMultipleObjects(1, handles, TRUE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

TEST(WaitHubs, AreSharedWhenThereAreMoreWaitersThanHubs) {
  constexpr int kWaiters = 70;  // 63 get a hub of their own
  const std::string commonName = UniqueName();
  const ScopedHandle common = CreateEventA(nullptr, TRUE, FALSE, commonName.c_str());
  std::vector<ScopedHandle> events;
  std::vector<Child> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    const std::string name = UniqueName();
    events.emplace_back(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
    waiters.push_back(Child::Self("WaitsForTwoEvents", {name, commonName}));
  }
  for (Child& waiter : waiters) ASSERT_EQ(waiter.ReadLine(), "waits");
  for (int i = 0; i < kWaiters; ++i) {
    SetEvent(events[static_cast<std::size_t>(i)]);
    Child& waiter = waiters[static_cast<std::size_t>(i)];
    ASSERT_EQ(waiter.ReadLine(), "0") << i;
    ASSERT_EQ(waiter.ReadLine(), "waits") << i;
  }
  SetEvent(common);
  for (Child& waiter : waiters) EXPECT_EQ(waiter.ReadLine(), "1");
}

}  // namespace
}  // namespace kestrun::test
