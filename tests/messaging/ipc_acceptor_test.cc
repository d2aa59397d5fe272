#include "messaging/ipc_acceptor.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "runtime/threads/reactor.h"
#include "runtime/threads/thread.h"
#include "support/names.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {
namespace {

constexpr u32 kLongMs = 30000;

// The wait loop of a reactor, on a thread of its own.
class WaitLoop {
 public:
  explicit WaitLoop(Reactor* reactor) : reactor_(reactor) { thread_->Start(MakeDelegate(&WaitLoop::Run, this)); }
  ~WaitLoop() {
    reactor_->Stop();
    thread_->Wait(kNoLimit);
  }

 private:
  void Run() { reactor_->RunWaitLoop(1000); }
  Reactor* reactor_;
  const rc_ptr<Thread> thread_{new Thread("wait loop")};
};

class IpcAcceptorTest : public testing::Test {
 protected:
  bool OnConnection(rc_ptr<IpcSocket> socket) {
    if (refusals_-- > 0) return false;
    accepted_.set_value(socket);
    return true;
  }
  bool HasRoom() { return hasRoom_; }
  IpcAcceptor::Factory Factory() { return MakeDelegate(&IpcAcceptorTest::OnConnection, this); }
  IpcAcceptor::Room Room() { return MakeDelegate(&IpcAcceptorTest::HasRoom, this); }

  const std::string name_ = test::UniqueName();
  int refusals_ = 0;
  bool hasRoom_ = false;
  std::promise<rc_ptr<IpcSocket>> accepted_;
  Reactor reactor_{0};
};

TEST_F(IpcAcceptorTest, GoesOnAfterARefusal) {
  refusals_ = 1;
  const rc_ptr<IpcAcceptor> acceptor(new IpcAcceptor(name_, Factory()));
  ASSERT_TRUE(reactor_.Register(acceptor.Get()));
  WaitLoop loop(&reactor_);
  IpcSocket refused;
  EXPECT_TRUE(refused.Connect(name_, kLongMs));
  char byte;
  EXPECT_FALSE(refused.Read(&byte, 1, kNoLimit).isConnected);
  IpcSocket taken;
  EXPECT_TRUE(taken.Connect(name_, kLongMs));
  EXPECT_EQ(accepted_.get_future().get()->GetName(), taken.GetName());
}

TEST_F(IpcAcceptorTest, NameInUseLeavesItWithoutASocket) {
  IpcSocket holder;
  ASSERT_TRUE(holder.Listen(name_));
  const rc_ptr<IpcAcceptor> acceptor(new IpcAcceptor(name_, Factory()));
  EXPECT_FALSE(acceptor->IsListening());
  EXPECT_EQ(acceptor->GetHandle(), -1);
  EXPECT_FALSE(acceptor->HandleEvent());
}

TEST_F(IpcAcceptorTest, WaitsOnlyForRequestsThatItHasRoomFor) {
  const rc_ptr<IpcAcceptor> acceptor(new IpcAcceptor(name_, Factory(), Room()));
  EXPECT_TRUE(acceptor->HandleEvent()) << "a wake-up without a request";
  EXPECT_EQ(acceptor->GetHandle(), -1);
  hasRoom_ = true;
  EXPECT_NE(acceptor->GetHandle(), -1);
}

}  // namespace
}  // namespace kestrun
