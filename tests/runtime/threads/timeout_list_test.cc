#include "runtime/threads/timeout_list.h"

#include <gtest/gtest.h>

#include <functional>

namespace kestrun {
namespace {

constexpr u32 kLongTimeMs = 60000;

class CountingTimeout : public TimeoutHandler {
 public:
  void OnTimeout() override {
    ++calls;
    if (onTimeout) onTimeout();
  }
  std::function<void()> onTimeout;
  int calls = 0;
};

class TimeoutListTest : public ::testing::Test {
 protected:
  TimeoutList list_;
  const rc_ptr<CountingTimeout> first_{new CountingTimeout};
  const rc_ptr<CountingTimeout> second_{new CountingTimeout};
};

TEST_F(TimeoutListTest, CallsOnceWhatIsDueAndKeepsTheRest) {
  const rc_ptr<CountingTimeout> cancelled(new CountingTimeout);
  list_.Add(first_, 0);
  list_.Add(second_, 0);
  list_.Add(second_, kLongTimeMs);
  list_.Add(cancelled, 0);
  EXPECT_EQ(list_.GetCount(), 3u);
  EXPECT_TRUE(list_.Cancel(cancelled));
  EXPECT_FALSE(list_.Cancel(cancelled));
  list_.RunDue();
  list_.RunDue();
  EXPECT_EQ(first_->calls, 1);
  EXPECT_EQ(second_->calls + cancelled->calls, 0);
  EXPECT_EQ(list_.GetCount(), 1u);
}

TEST_F(TimeoutListTest, HandlerThatAddsItselfAgainIsCalledInTheNextRun) {
  first_->onTimeout = [&] { list_.Add(first_, 0); };
  list_.Add(first_, 0);
  for (int run = 1; run <= 3; ++run) {
    list_.RunDue();
    EXPECT_EQ(first_->calls, run);
  }
}

TEST_F(TimeoutListTest, HandlerThatIsDueCanBeCancelledByTheCallbackOfAnother) {
  bool isCancelled = false;
  first_->onTimeout = [&] { isCancelled = list_.Cancel(second_); };
  list_.Add(first_, 0);
  list_.Add(second_, 0);
  list_.RunDue();
  list_.RunDue();
  EXPECT_TRUE(isCancelled);
  EXPECT_EQ(second_->calls, 0);
}

TEST_F(TimeoutListTest, HandlerThatIsDueAndIsAddedAgainByTheCallbackOfAnotherIsCalledOnce) {
  for (const u32 delayMs : {0u, kLongTimeMs}) {
    second_->calls = 0;
    first_->onTimeout = [&] { list_.Add(second_, delayMs); };
    list_.Add(first_, 0);
    list_.Add(second_, 0);
    list_.RunDue();
    EXPECT_EQ(second_->calls, 0) << "its new time lies behind this run";
    list_.RunDue();
    EXPECT_EQ(second_->calls, delayMs == 0 ? 1 : 0);
    EXPECT_EQ(list_.GetCount(), delayMs == 0 ? 0u : 1u);
  }
}

TEST_F(TimeoutListTest, CallbackThatThrowsLeavesTheOthers) {
  first_->onTimeout = [] { throw 1; };
  list_.Add(first_, 0);
  list_.Add(second_, 0);
  EXPECT_THROW(list_.RunDue(), int);
  list_.RunDue();
  EXPECT_EQ(first_->calls, 1);
  EXPECT_EQ(second_->calls, 1);
}

TEST_F(TimeoutListTest, SleepLastsUntilTheNextTimeoutAtMost) {
  EXPECT_FALSE(list_.Add(first_, kLongTimeMs)) << "no sleep is under way";
  EXPECT_EQ(list_.BeginSleep(10), 10u);
  EXPECT_FALSE(list_.Add(first_, kLongTimeMs)) << "the sleep ends earlier";
  EXPECT_TRUE(list_.Add(first_, 0));
  EXPECT_FALSE(list_.Add(second_, 0)) << "the end of the sleep was moved already";
  list_.EndSleep();
  EXPECT_EQ(list_.BeginSleep(static_cast<int>(kLongTimeMs)), 0u);
  list_.EndSleep();
  EXPECT_FALSE(list_.Add(first_, 0));
}

TEST(TimeoutListDueTimes, SurviveTheWrapOfTheTickCount) {
  EXPECT_TRUE(IsDue(5, 5));
  EXPECT_FALSE(IsDue(4, 5));
  EXPECT_TRUE(IsDue(3, 0xFFFFFFF0));
  EXPECT_FALSE(IsDue(0xFFFFFFF0, 3));
}

}  // namespace
}  // namespace kestrun
