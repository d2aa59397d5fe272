#include "runtime/threads/select_wakeup_handler.h"

#include <gtest/gtest.h>

#include "event_handlers.h"

namespace kestrun {
namespace {

bool BecomesReadable(int handle) {
  fd_set read;
  FD_ZERO(&read);
  FD_SET(static_cast<SOCKET>(handle), &read);
  timeval limit{30, 0};
  return select(0, &read, nullptr, nullptr, &limit) == 1;
}

TEST(SelectWakeupHandler, EachWakeupIsTakenOnce) {
  WSADATA data;
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  const rc_ptr<SelectWakeupHandler> wakeup(new SelectWakeupHandler(test::OwnPorts()));
  for (int i = 0; i < 100; ++i) wakeup->Wake();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(BecomesReadable(wakeup->GetHandle()));
    ASSERT_TRUE(wakeup->HandleEvent());
  }
  EXPECT_FALSE(wakeup->HandleEvent());
  wakeup->Close();
  EXPECT_EQ(wakeup->GetHandle(), -1);
  wakeup->Wake();
  WSACleanup();
}

}  // namespace
}  // namespace kestrun
