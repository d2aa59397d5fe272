#include "runtime/threads/handle_loop.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "event_handlers.h"

namespace kestrun {
namespace {

using test::TestHandler;
using test::WaitableHandler;
using Outcome = HandleLoop::Outcome;
using Strings = std::vector<std::string>;

constexpr u32 kLongTime = 30000;

class HandleLoopTest : public ::testing::Test {
 protected:
  void OnError(std::string text) {
    errors_.push_back(text);
    if (onError_) onError_();
  }
  Outcome Wait(u32 timeoutMs) {
    signalled_.Reset();
    return loop_.Wait(timeoutMs, signalled_);
  }
  // The wait that the registration of a handler ends.
  void PassWakeEvent() {
    ASSERT_EQ(Wait(kLongTime), Outcome::kEvent);
    ASSERT_FALSE(signalled_);
  }
  rc_ptr<WaitableHandler> AddHandler() {
    rc_ptr<WaitableHandler> handler(new WaitableHandler);
    EXPECT_TRUE(loop_.Add(handler));
    return handler;
  }

  HandleLoop loop_{MakeDelegate(&HandleLoopTest::OnError, this)};
  rc_ptr<EventHandler> signalled_;
  Strings errors_;
  std::function<void()> onError_;
};

TEST_F(HandleLoopTest, TheWakeEventGoesBeforeTheHandlers) {
  const rc_ptr<WaitableHandler> handler = AddHandler();
  handler->Signal();
  PassWakeEvent();
  EXPECT_EQ(Wait(kLongTime), Outcome::kEvent);
  EXPECT_EQ(signalled_, rc_ptr<EventHandler>(handler));
  EXPECT_EQ(Wait(0), Outcome::kTimedOut);
}

TEST_F(HandleLoopTest, WaitsFor63HandlersAndReportsThe64th) {
  std::vector<rc_ptr<WaitableHandler>> handlers;
  for (int i = 0; i < 63; ++i) handlers.push_back(AddHandler());
  PassWakeEvent();
  EXPECT_EQ(Wait(0), Outcome::kTimedOut);
  EXPECT_EQ(errors_, Strings{});
  handlers.push_back(AddHandler());
  PassWakeEvent();
  EXPECT_EQ(errors_, Strings{"Reactor::WaitForOneEvent() - max wait handles exceeded!"});
  for (const auto& handler : handlers) handler->Signal();
  EXPECT_EQ(Wait(kLongTime), Outcome::kEvent);
  EXPECT_TRUE(signalled_);
}

TEST_F(HandleLoopTest, ListenersRunWithoutALock) {
  std::vector<rc_ptr<WaitableHandler>> handlers;
  for (int i = 0; i < 64; ++i) handlers.push_back(AddHandler());
  // Removes on another thread, because a thread that holds a lock may take it again.
  onError_ = [&] { std::thread([&] { EXPECT_TRUE(loop_.Remove(handlers[0])); }).join(); };
  PassWakeEvent();
  EXPECT_EQ(errors_.size(), 1u);
  EXPECT_EQ(loop_.GetCount(), 63u);
}

TEST_F(HandleLoopTest, ReportsHandlesThatCanNotBeHadOrWaitedFor) {
  const rc_ptr<WaitableHandler> throws = AddHandler();
  throws->throws = true;
  PassWakeEvent();
  EXPECT_EQ(errors_, Strings{"no handle"});
  loop_.Remove(throws);
  PassWakeEvent();
  errors_.clear();

  loop_.Add(new TestHandler(EventHandler::kWaitable, 0x7FFFFF0));
  EXPECT_EQ(Wait(kLongTime), Outcome::kFailed);
  EXPECT_EQ(errors_, Strings{"Reactor::WaitForOneEvent() - WaitForMultipleObjects() failed - error=6"});
}

}  // namespace
}  // namespace kestrun
