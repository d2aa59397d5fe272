#include "runtime/threads/event_loop.h"

#include <gtest/gtest.h>

#include "event_handlers.h"

namespace kestrun {
namespace {

using test::WaitableHandler;

// A loop that never waits.
class IdleLoop : public EventLoop {
 public:
  IdleLoop() : EventLoop(nullptr) {}
  bool Accepts(EventHandler*) override { return true; }
  void Wake() override {}
  using EventLoop::GetWaiting;
  int wakes = 0;

 protected:
  void WakeForHandler() override { ++wakes; }
};

class EventLoopTest : public ::testing::Test {
 protected:
  IdleLoop loop_;
  const rc_ptr<EventHandler> handler_{new WaitableHandler};
};

TEST_F(EventLoopTest, HandlerIsCalledByOneCallerAtATime) {
  EXPECT_FALSE(loop_.BeginCall(handler_)) << "unknown";
  loop_.Add(handler_);
  ASSERT_TRUE(loop_.BeginCall(handler_));
  loop_.Add(handler_);
  EXPECT_FALSE(loop_.BeginCall(handler_)) << "called already, and adding it again changes nothing";
  EXPECT_TRUE(loop_.GetWaiting().empty());
  loop_.wakes = 0;
  EXPECT_TRUE(loop_.EndCall(handler_, true));
  EXPECT_EQ(loop_.wakes, 1);
  EXPECT_EQ(loop_.GetWaiting().size(), 1u);
  EXPECT_TRUE(loop_.BeginCall(handler_));
  EXPECT_FALSE(loop_.EndCall(handler_, false));
  EXPECT_EQ(loop_.GetCount(), 0u);
}

TEST_F(EventLoopTest, HandlerThatIsRemovedDuringItsCallDoesNotComeBack) {
  for (const bool byClear : {false, true}) {
    loop_.Add(handler_);
    ASSERT_TRUE(loop_.BeginCall(handler_));
    if (byClear) {
      loop_.Clear();
    } else {
      EXPECT_FALSE(loop_.Remove(handler_));
    }
    EXPECT_FALSE(loop_.EndCall(handler_, true));
    EXPECT_FALSE(loop_.BeginCall(handler_));
  }
}

TEST_F(EventLoopTest, HandlerThatIsRemovedAndAddedDuringItsCallWaitsAfterIt) {
  loop_.Add(handler_);
  loop_.BeginCall(handler_);
  loop_.Remove(handler_);
  loop_.Add(handler_);
  EXPECT_FALSE(loop_.BeginCall(handler_)) << "the call is still under way";
  EXPECT_TRUE(loop_.EndCall(handler_, true));
  EXPECT_TRUE(loop_.Remove(handler_));
}

}  // namespace
}  // namespace kestrun
