#include "messaging/ipc_channel.h"

#include <gtest/gtest.h>

#include <ctime>
#include <future>
#include <string>
#include <vector>

#include "../transport/ipc_ends.h"
#include "fakes.h"
#include "messaging/ipc_acceptor.h"
#include "runtime/thread.h"
#include "support/child.h"

namespace kestrun {
namespace {

using test::IpcEnds;
using test::kLongMs;
using test::TextMessage;
using test::TextOf;

// A channel on each end.
struct ChannelEnds : IpcEnds {
  ChannelEnds() {
    Meet();
    clientChannel = new IpcChannel(client);
    serverChannel = new IpcChannel(server);
  }
  rc_ptr<IpcChannel> clientChannel;
  rc_ptr<IpcChannel> serverChannel;
};

TEST(IpcChannel, CarriesMessagesBothWays) {
  ChannelEnds ends;
  EXPECT_TRUE(ends.clientChannel->Send(TextMessage("to the server")));
  const rc_ptr<Message> got = ends.serverChannel->Receive(-1);
  EXPECT_EQ(TextOf(got), "to the server");
  EXPECT_EQ(got->GetSequence(), 2u);
  EXPECT_EQ(got->GetAddress(), Address(Address::kIpc, ends.server->GetName()));
  EXPECT_TRUE(ends.serverChannel->Send(TextMessage("to the client")));
  EXPECT_EQ(TextOf(ends.clientChannel->Receive(-1)), "to the client");
}

// A message that fills the reader's block exactly must not make it wait for more.
TEST(IpcChannel, MessageOfAWholeBlockIsNotWaitedBehind) {
  ChannelEnds ends;
  for (const u32 size : {8191u, 8192u, 8193u, 16384u}) {
    ends.clientChannel->Send(TextMessage(std::string(size - 20, 'b')));
    EXPECT_EQ(TextOf(ends.serverChannel->Receive(-1)).size(), size - 20);
  }
}

TEST(IpcChannel, SendersOnManyThreadsDoNotMix) {
  ChannelEnds ends;
  std::vector<std::future<void>> senders;
  for (char letter = 'a'; letter < 'd'; ++letter) {
    senders.push_back(std::async(std::launch::async, [&, letter] {
      for (u32 i = 0; i < 50; ++i) ends.clientChannel->Send(TextMessage(std::string(i * 200, letter)));
    }));
  }
  u32 lengths[3] = {};
  for (u32 i = 1; i <= 150; ++i) {
    const rc_ptr<Message> message = ends.serverChannel->Receive(static_cast<int>(kLongMs));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->GetSequence(), i + 1);
    const std::string text = TextOf(message);
    if (text.empty()) continue;
    EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos);
    EXPECT_EQ(text.size(), ++lengths[text[0] - 'a'] * 200);
  }
  for (auto& sender : senders) sender.get();
}

TEST(IpcChannel, ClosedPeerEndsReceiveAfterItsMessages) {
  ChannelEnds ends;
  for (const char* text : {"one", "two", "three"}) ends.clientChannel->Send(TextMessage(text));
  ends.clientChannel.Reset();
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(TextOf(ends.serverChannel->Receive(-1)), text);
  EXPECT_FALSE(ends.serverChannel->Receive(-1));
  EXPECT_FALSE(ends.serverChannel->Send(TextMessage(std::string(100000, 'x'))));
}

TEST(IpcChannel, ConnectsAnewAndByAddress) {
  ChannelEnds ends;
  auto accepted = ends.Accept();
  EXPECT_FALSE(ends.clientChannel->Connect(Address(Address::kInt, ends.name), kLongMs));
  EXPECT_TRUE(ends.clientChannel->Connect(Address(Address::kIpc, ends.name), kLongMs));
  const rc_ptr<IpcChannel> server(new IpcChannel(accepted.get()));
  ends.clientChannel->Send(TextMessage("again"));
  EXPECT_EQ(TextOf(server->Receive(-1)), "again");

  accepted = ends.Accept();
  const rc_ptr<MessageChannel> made(MessageChannel::Create(Address(Address::kIpc, ends.name), kLongMs));
  ASSERT_TRUE(made);
  EXPECT_TRUE(accepted.get());
  EXPECT_EQ(MessageChannel::Create(Address(Address::kIpc, test::UniqueName()), 100), nullptr);
  EXPECT_EQ(MessageChannel::Create(Address(Address::kInt, "x"), 100), nullptr);
}

// A reactor's wait loop on a thread of its own.
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
  bool OnConnection(IpcSocket* socket) {
    const rc_ptr<IpcSocket> taken(socket);
    if (refusals_-- > 0) return false;
    accepted_.set_value(taken);
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
