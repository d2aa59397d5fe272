#include "runtime/reactor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "platform/host.h"
#include "runtime/select_wakeup_handler.h"
#include "support/child.h"
#include "support/expect_throw.h"

namespace kestrun {
namespace {

using Strings = std::vector<std::string>;

constexpr int kLongTime = 30000;
// As an int: some systems have the constant as an enumerator, whose scope would join the lookup of socket().
constexpr int kDatagrams = SOCK_DGRAM;
constexpr int kStream = SOCK_STREAM;

// Ten ports of this process alone, below those that systems give out by themselves.
u16 OwnPorts() {
  return static_cast<u16>(21000 + test::CurrentProcessId() % 1000 * 10);
}

sockaddr_in Loopback(u16 port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  return address;
}

// A handler that counts its calls and does what the test tells it.
class TestHandler : public Reactor::EventHandler {
 public:
  TestHandler(int type, int handle) : type_(type), handle_(handle) {}

  int GetHandle() override {
    if (throws) throw SystemException("no handle", "SystemException");
    return handle_;
  }
  int GetHandleType() override { return type_; }
  u32 GetEvents() override { return events; }
  bool UsesThreadPool() override { return usesPool; }
  bool HandleEvent() override {
    ++calls;
    return onEvent ? onEvent() : true;
  }
  void Close() override {
    ++closes;
    handle_ = -1;
  }

  std::function<bool()> onEvent;
  u32 events = Reactor::kRead;
  bool usesPool = false;
  bool throws = false;
  std::atomic<int> calls{0};
  int closes = 0;

 private:
  int type_;
  std::atomic<int> handle_;
};

class EventHandler : public TestHandler {
 public:
  EventHandler() : EventHandler(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {}
  void Signal() { SetEvent(event_.Get()); }

 private:
  explicit EventHandler(HANDLE event) : TestHandler(Reactor::kWaitable, platform::HandleToInt(event)), event_(event) {}
  UniqueHandle event_;
};

// A datagram socket that can send to itself.
class SocketHandler : public TestHandler {
 public:
  SocketHandler() : SocketHandler(socket(AF_INET, kDatagrams, 0)) {}
  ~SocketHandler() override { CloseSocket(); }

  void Signal() { sendto(socket_, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)); }
  bool Take() {
    char byte;
    return recv(socket_, &byte, 1, 0) == 1;
  }
  void CloseSocket() {
    if (socket_ != INVALID_SOCKET) closesocket(socket_);
    socket_ = INVALID_SOCKET;
  }

 private:
  explicit SocketHandler(SOCKET handle) : TestHandler(Reactor::kSelectable, static_cast<int>(handle)), socket_(handle) {
    int size = sizeof(address_);
    bind(socket_, reinterpret_cast<const sockaddr*>(&address_), size);
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size);
    onEvent = [this] { return Take(); };
  }
  SOCKET socket_;
  sockaddr_in address_ = Loopback(0);
};

class TestTimeout : public Reactor::TimeoutHandler {
 public:
  void OnTimeout() override {
    ++calls;
    if (onTimeout) onTimeout();
  }
  std::function<void()> onTimeout;
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

TEST_F(ReactorTest, CallsAHandlerOnceForEachEvent) {
  rc_ptr<EventHandler> handler(new EventHandler);
  handler->Signal();
  ASSERT_TRUE(reactor_.Register(handler.Get()));
  // The wake event of the registration goes first.
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
  EXPECT_EQ(handler->calls, 0);
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
  EXPECT_EQ(handler->calls, 1);
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=1 timeouts=0");
  PassWakeEvent();
  EXPECT_EQ(reactor_.WaitForOneEvent(0), 0);
  handler->Signal();
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
  EXPECT_EQ(handler->calls, 2);
}

TEST_F(ReactorTest, ClosesAHandlerThatFails) {
  rc_ptr<EventHandler> refuses(new EventHandler), throws(new EventHandler);
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

TEST_F(ReactorTest, RefusesWhatItCanNotWaitFor) {
  rc_ptr<EventHandler> writes(new EventHandler);
  writes->events = Reactor::kRead | Reactor::kWrite;
  rc_ptr<TestHandler> unknown(new TestHandler(2, 5));
  EXPECT_FALSE(reactor_.Register(writes.Get()));
  EXPECT_FALSE(reactor_.Register(unknown.Get()));
  EXPECT_FALSE(reactor_.Register(nullptr));
  EXPECT_FALSE(reactor_.Unregister(nullptr));
  EXPECT_FALSE(reactor_.Unregister(writes.Get()));
}

TEST_F(ReactorTest, LeavesAloneWhatIsUnregisteredOrHasNoHandle) {
  rc_ptr<EventHandler> gone(new EventHandler);
  rc_ptr<TestHandler> without(new TestHandler(Reactor::kWaitable, -1));
  rc_ptr<TestHandler> withoutSocket(new TestHandler(Reactor::kSelectable, -1));
  for (TestHandler* handler : {static_cast<TestHandler*>(gone.Get()), without.Get(), withoutSocket.Get()}) {
    ASSERT_TRUE(reactor_.Register(handler));
  }
  gone->Signal();
  EXPECT_TRUE(reactor_.Unregister(gone.Get()));
  EXPECT_FALSE(reactor_.Unregister(gone.Get()));
  PassWakeEvent();
  PassWakeups();
  EXPECT_EQ(reactor_.WaitForOneEvent(0), 0);
  EXPECT_EQ(gone->calls + without->calls + withoutSocket->calls, 0);
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=2 waitable=1 timeouts=0");
}

TEST_F(ReactorTest, WaitsFor63HandlersAndReportsThe64th) {
  std::vector<rc_ptr<EventHandler>> handlers(64);
  for (auto& handler : handlers) handler = new EventHandler;
  for (int i = 0; i < 63; ++i) reactor_.Register(handlers[i].Get());
  PassWakeEvent();
  EXPECT_EQ(reactor_.WaitForOneEvent(0), 0);
  EXPECT_EQ(errors_, Strings{});
  reactor_.Register(handlers[63].Get());
  PassWakeEvent();
  EXPECT_EQ(errors_, Strings{"Reactor::WaitForOneEvent() - max wait handles exceeded!"});
  for (auto& handler : handlers) handler->Signal();
  EXPECT_EQ(reactor_.WaitForOneEvent(kLongTime), 1);
}

TEST_F(ReactorTest, ReportsHandlesThatCanNotBeHadOrWaitedFor) {
  rc_ptr<EventHandler> throws(new EventHandler);
  throws->throws = true;
  reactor_.Register(throws.Get());
  PassWakeEvent();
  EXPECT_EQ(errors_, Strings{"no handle"});
  reactor_.Unregister(throws.Get());
  PassWakeEvent();
  errors_.clear();

  rc_ptr<TestHandler> invalid(new TestHandler(Reactor::kWaitable, 0x7FFFFF0));
  reactor_.Register(invalid.Get());
  EXPECT_FALSE(reactor_.RunWaitLoop(kLongTime));
  EXPECT_EQ(errors_, Strings{"Reactor::WaitForOneEvent() - WaitForMultipleObjects() failed - error=6"});
}

TEST_F(ReactorTest, TimeoutsFireOnceInTheSelectLoop) {
  rc_ptr<TestTimeout> now(new TestTimeout), later(new TestTimeout), cancelled(new TestTimeout);
  EXPECT_TRUE(reactor_.AddTimeout(now.Get(), 0));
  EXPECT_TRUE(reactor_.AddTimeout(later.Get(), 0));
  EXPECT_TRUE(reactor_.AddTimeout(later.Get(), 60000));
  EXPECT_TRUE(reactor_.AddTimeout(cancelled.Get(), 0));
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=3");
  EXPECT_TRUE(reactor_.CancelTimeout(cancelled.Get()));
  EXPECT_FALSE(reactor_.CancelTimeout(cancelled.Get()));
  EXPECT_EQ(reactor_.SelectOnce(kLongTime), 0);
  EXPECT_EQ(reactor_.SelectOnce(0), 0);
  EXPECT_EQ(now->calls, 1);
  EXPECT_EQ(later->calls + cancelled->calls, 0);
  EXPECT_EQ(reactor_.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=1");
}

TEST_F(ReactorTest, TimeoutArmsItselfAgainForALaterPass) {
  rc_ptr<TestTimeout> tick(new TestTimeout);
  tick->onTimeout = [&] { reactor_.AddTimeout(tick.Get(), 0); };
  reactor_.AddTimeout(tick.Get(), 0);
  for (int pass = 1; pass <= 3; ++pass) {
    reactor_.SelectOnce(0);
    EXPECT_EQ(tick->calls, pass);
  }
}

TEST_F(ReactorTest, SleepEndsWhenATimeoutIsDueWhoeverAddsIt) {
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

TEST(ReactorDueTimes, SurviveTheWrapOfTheTickCount) {
  EXPECT_TRUE(IsDue(5, 5));
  EXPECT_FALSE(IsDue(4, 5));
  EXPECT_TRUE(IsDue(3, 0xFFFFFFF0));
  EXPECT_FALSE(IsDue(0xFFFFFFF0, 3));
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
  handler->events = Reactor::kRead | Reactor::kWrite;  // readiness for writing calls nobody
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

TEST_F(ReactorTest, SocketThatWasClosedMeanwhileIsNoError) {
  rc_ptr<SocketHandler> handler(new SocketHandler);
  reactor_.Register(handler.Get());
  PassWakeups();
  handler->CloseSocket();
  EXPECT_EQ(reactor_.SelectOnce(kLongTime), 0);
  EXPECT_EQ(errors_, Strings{});
}

TEST_F(ReactorTest, Selects255SocketsAndReportsThe256th) {
  std::vector<rc_ptr<SocketHandler>> handlers(255);
  for (auto& handler : handlers) handler = new SocketHandler;
  for (int i = 0; i < 254; ++i) ASSERT_TRUE(reactor_.Register(handlers[i].Get()));
  PassWakeups();
  EXPECT_EQ(reactor_.SelectOnce(0), 0);
  ASSERT_TRUE(reactor_.Register(handlers[254].Get()));
  EXPECT_FALSE(reactor_.RunSelectLoop(kLongTime));
  EXPECT_EQ(errors_, Strings{"Too many socket-descriptors!"});
}

TEST_F(ReactorTest, SaysThatNoPortIsLeft) {
  std::vector<SOCKET> taken;
  const auto freeLast = [&] {
    closesocket(taken.back());
    taken.pop_back();
  };
  // Ten ports in a row; somebody else may have one of them.
  u16 first = OwnPorts();
  for (u16 next = first; taken.size() < 10; ++next) {
    sockaddr_in address = Loopback(next);
    taken.push_back(socket(AF_INET, kStream, 0));
    if (bind(taken.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(taken.back(), 1) == 0) {
      continue;
    }
    while (!taken.empty()) freeLast();
    first = static_cast<u16>(next + 1);
  }
  Reactor reactor(0, first);
  rc_ptr<SocketHandler> handler(new SocketHandler);
  test::ExpectThrow<ReactorException>([&] { reactor.Register(handler.Get()); },
                                      "WakeupHandler could not bind to any port!", 10048);
  EXPECT_EQ(reactor.GetStatus(), "Reactor: selectable=0 waitable=0 timeouts=0");
  freeLast();
  EXPECT_TRUE(reactor.Register(handler.Get()));
  while (!taken.empty()) freeLast();
}

bool BecomesReadable(int handle) {
  fd_set read;
  FD_ZERO(&read);
  FD_SET(static_cast<SOCKET>(handle), &read);
  timeval limit{kLongTime / 1000, 0};
  return select(0, &read, nullptr, nullptr, &limit) == 1;
}

TEST_F(ReactorTest, EachWakeupIsTakenOnce) {
  rc_ptr<Reactor::SelectWakeupHandler> wakeup(new Reactor::SelectWakeupHandler(OwnPorts()));
  for (int i = 0; i < 100; ++i) wakeup->Wake();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(BecomesReadable(wakeup->GetHandle()));
    ASSERT_TRUE(wakeup->HandleEvent());
  }
  EXPECT_FALSE(wakeup->HandleEvent());
  wakeup->Close();
  EXPECT_EQ(wakeup->GetHandle(), -1);
  wakeup->Wake();
}

// However the events fall, no handler is ever in two threads, and no event is lost.
TEST_F(ReactorTest, PoolRunsEachHandlerInOneThreadAtATime) {
  constexpr int kHandlers = 8, kEvents = 200;
  Reactor reactor(3, OwnPorts());
  std::vector<rc_ptr<EventHandler>> handlers(kHandlers);
  std::atomic<int> inside[kHandlers] = {};
  std::atomic<int> overlaps{0};
  Semaphore handled(kHandlers, nullptr);
  for (int i = 0; i < kHandlers; ++i) {
    ASSERT_TRUE(handled.Wait(0));
    handlers[i] = new EventHandler;
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
