#include "runtime/threads/socket_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "event_handlers.h"
#include "runtime/threads/reactor_exception.h"
#include "support/expect_throw.h"

namespace kestrun {
namespace {

using test::SocketHandler;
using Strings = std::vector<std::string>;

constexpr u32 kLongTime = 30000;

class SocketLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  void TearDown() override {
    loop_.Clear();
    WSACleanup();
  }
  void OnError(std::string text) { errors_.push_back(text); }
  // Takes the wake-ups until there are none left.
  void PassWakeups() {
    while (loop_.Wait(0).wakeups > 0) {
    }
  }

  SocketLoop loop_{test::OwnPorts(), MakeDelegate(&SocketLoopTest::OnError, this)};
  Strings errors_;
};

TEST_F(SocketLoopTest, WakeEndsAWaitWithAndWithoutSockets) {
  for (const bool hasSocket : {false, true}) {
    if (hasSocket) loop_.Add(new SocketHandler);
    PassWakeups();
    const u32 start = GetTickCount();
    std::thread other([&] { loop_.Wake(); });
    EXPECT_TRUE(loop_.Wait(10 * kLongTime).ready.empty());
    EXPECT_LT(GetTickCount() - start, kLongTime);
    other.join();
  }
}

TEST_F(SocketLoopTest, SocketThatWasClosedMeanwhileIsNoError) {
  const rc_ptr<SocketHandler> handler(new SocketHandler);
  loop_.Add(handler);
  PassWakeups();
  handler->CloseSocket();
  const SocketLoop::Result result = loop_.Wait(kLongTime);
  EXPECT_FALSE(result.isFailed);
  EXPECT_TRUE(result.ready.empty());
  EXPECT_EQ(errors_, Strings{});
}

TEST_F(SocketLoopTest, Selects255SocketsAndReportsThe256th) {
  for (int i = 0; i < 254; ++i) ASSERT_TRUE(loop_.Add(new SocketHandler));
  PassWakeups();
  EXPECT_FALSE(loop_.Wait(0).isFailed);
  ASSERT_TRUE(loop_.Add(new SocketHandler));
  EXPECT_TRUE(loop_.Wait(kLongTime).isFailed);
  EXPECT_EQ(errors_, Strings{"Too many socket-descriptors!"});
}

}  // namespace
}  // namespace kestrun
