#include "runtime/threads/reactor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "event_handlers.h"
#include "runtime/threads/sync.h"

namespace kestrun {
namespace {

using test::OwnPorts;
using test::SocketHandler;
using test::TestHandler;
using test::WaitableHandler;
using Strings = std::vector<std::string>;

constexpr int kLongTime = 30000;
class TestTimeout : public Reactor::TimeoutHandler {
 public:
  void OnTimeout() override { ++calls; }
  std::atomic<int> calls{0};
};

class ReactorTest : public ::testing::Test {
 protected:
  ReactorTest() : reactor_(0, OwnPorts()) {}

  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    reactor_.AddErrorListener(MakeDelegate(&ReactorTest::OnError, this));
    reactor_.AddCloseListener(MakeDelegate(&ReactorTest::OnClosed, this));
  }
  void TearDown() override {
    reactor_.Shutdown();
    WSACleanup();
  }

  void OnError(std::string text) { errors_.push_back(text); }
  void OnClosed(Reactor::EventHandler* handler) { closed_.push_back(handler); }

  // Takes the wake event that a registration leaves behind.
  void PassWakeEvent() { ASSERT_EQ(reactor_.WaitForOneEvent(kLongTime), 1); }
  // Takes the wake-ups of the select loop until there are none left.
  void PassWakeups() {
    while (reactor_.SelectOnce(0) > 0) {
    }
  }

  Reactor reactor_;
  Strings errors_;
  std::vector<Reactor::EventHandler*> closed_;
};

TEST_F(ReactorTest, ClosesAHandlerThatFails) {
  rc_ptr<WaitableHandler> refuses(new WaitableHandler), throws(new WaitableHandler);
  refuses->onEvent = [] { return false; };
  throws->onEvent = []() -> bool { throw SystemException("x", "SystemException"); };
  for (const auto& handler : {refuses, throws}) {
    reactor_.Register(handler.Get());
    handler->Signal();
    PassWakeEvent();
    EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
    EXPECT_EQ(handler->closes, 1);
    EXPECT_EQ(closed_.back(), handler.Get());
  }
  EXPECT_EQ(closed_.size(), 2u);
  EXPECT_EQ(errors_, Strings{});
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=0");
}

TEST_F(ReactorTest, HandlerThatIsClosedDuringItsCallIsToldAndNotRegisteredAgain) {
  rc_ptr<WaitableHandler> handler(new WaitableHandler);
  handler->onEvent = [&] {
    std::thread([&] { handler->Close(); }).join();
    return true;
  };
  reactor_.Register(handler);
  PassWakeEvent();
  handler->Signal();
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
  EXPECT_EQ(closed_, std::vector<Reactor::EventHandler*>{handler.Get()});
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=0");
}

TEST_F(ReactorTest, HandlerWhosePoolIsStoppedIsClosedAndNotCalled) {
  rc_ptr<WaitableHandler> handler(new WaitableHandler);
  handler->usesPool = true;
  reactor_.Register(handler);
  PassWakeEvent();
  EXPECT_TRUE(reactor_.StopThreadPool());
  handler->Signal();
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
  EXPECT_EQ(handler->calls, 0);
  EXPECT_EQ(handler->closes, 1);
  EXPECT_EQ(closed_, std::vector<Reactor::EventHandler*>{handler.Get()});
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=0");
}

TEST_F(ReactorTest, SleepEndsWhenATimeoutIsDueFromWhateverThreadItWasAdded) {
  for (bool hasSocket : {false, true}) {
    rc_ptr<SocketHandler> handler(new SocketHandler);
    if (hasSocket) reactor_.Register(handler.Get());
    for (bool byAnother : {false, true}) {
      PassWakeups();
      rc_ptr<TestTimeout> timeout(new TestTimeout);
      u32 start = GetTickCount();
      std::thread other([&] { reactor_.AddTimeout(timeout.Get(), 30); });
      if (!byAnother) other.join();
      while (timeout->calls == 0) reactor_.SelectOnce(10 * kLongTime);
      EXPECT_GE(GetTickCount() - start, 30u);
      EXPECT_LT(GetTickCount() - start, static_cast<u32>(kLongTime));
      if (byAnother) other.join();
    }
  }
}

TEST_F(ReactorTest, StopEndsBothLoopsAtOnce) {
  for (bool hasSocket : {false, true}) {
    Reactor reactor(0, OwnPorts());
    rc_ptr<SocketHandler> handler(new SocketHandler);
    if (hasSocket) reactor.Register(handler.Get());
    bool selected = false, waited = false;
    u32 start = GetTickCount();
    std::thread selects([&] { selected = reactor.RunSelectLoop(10 * kLongTime); });
    std::thread waits([&] { waited = reactor.RunWaitLoop(10 * kLongTime); });
    reactor.Stop();
    reactor.Stop();
    selects.join();
    waits.join();
    EXPECT_TRUE(selected && waited);
    EXPECT_LT(GetTickCount() - start, static_cast<u32>(kLongTime));
    EXPECT_TRUE(reactor.RunSelectLoop(10 * kLongTime));
  }
}

TEST_F(ReactorTest, SocketsAreReadWhenTheyAreReady) {
  rc_ptr<SocketHandler> handler(new SocketHandler);
  handler->events = Reactor::kRead | Reactor::kWrite;  // readiness for writing calls no handler
  ASSERT_TRUE(reactor_.Register(handler.Get()));
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=2 waitable=0 timeouts=0");
  PassWakeups();
  EXPECT_EQ(handler->calls, 0);
  handler->Signal();
  while (handler->calls == 0) EXPECT_GE(reactor_.SelectOnce(kLongTime), 1);
  PassWakeups();
  EXPECT_EQ(handler->calls, 1);
  handler->onEvent = [] { return false; };
  handler->Signal();
  while (handler->calls == 1) EXPECT_GE(reactor_.SelectOnce(kLongTime), 1);
  EXPECT_EQ(closed_, std::vector<Reactor::EventHandler*>{handler.Get()});
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=1 waitable=0 timeouts=0");
}

// However the events fall, no handler is ever in two threads, and no event is lost.
TEST_F(ReactorTest, PoolRunsEachHandlerInOneThreadAtATime) {
  constexpr int kHandlers = 8, kEvents = 200;
  Reactor reactor(3, OwnPorts());
  std::vector<rc_ptr<WaitableHandler>> handlers(kHandlers);
  std::atomic<int> inside[kHandlers] = {};
  std::atomic<int> overlaps{0};
  Semaphore handled(kHandlers, nullptr);
  for (int i = 0; i < kHandlers; ++i) {
    ASSERT_TRUE(handled.Wait(0));
    handlers[i] = new WaitableHandler;
    handlers[i]->usesPool = true;
    handlers[i]->onEvent = [&, i] {
      overlaps += ++inside[i] > 1;
      SwitchToThread();
      --inside[i];
      return handled.Release();
    };
    reactor.Register(handlers[i].Get());
  }
  std::thread waits([&] { reactor.RunWaitLoop(kLongTime); });
  for (int round = 0; round < kEvents; ++round) {
    for (const auto& handler : handlers) handler->Signal();
    for (int i = 0; i < kHandlers; ++i) ASSERT_TRUE(handled.Wait(kLongTime));
  }
  reactor.Stop();
  waits.join();
  EXPECT_TRUE(reactor.StopThreadPool());
  EXPECT_EQ(overlaps, 0);
  for (const auto& handler : handlers) EXPECT_EQ(handler->calls, kEvents);
}

}  // namespace
}  // namespace kestrun
