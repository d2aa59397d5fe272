#include "messaging/message_dispatcher.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "../transport/shared/connector.h"
#include "fakes.h"
#include "messaging/ipc_channel.h"
#include "messaging/socket_channel.h"
#include "runtime/threads/blocking_queue.h"
#include "runtime/threads/thread.h"
#include "support/names.h"
#include "transport/shared/ipc_socket.h"
#include "transport/sockets/socket.h"
#include "transport/sockets/socket_stream.h"

namespace kestrun {
namespace {

using test::FakeChannel;
using test::TextMessage;
using test::TextOf;

constexpr u32 kLongMs = 30000;
constexpr u32 kService = 2;

// A client of the dispatcher that keeps what it is given.
class Inbox {
 public:
  MessageDispatcher::MessageHandler Handler() { return MakeDelegate(&Inbox::OnMessage, this); }
  // The next message that is not the dispatcher's start; empty if none comes.
  rc_ptr<Message> Next() {
    rc_ptr<Message> message;
    do {
      if (!queue_.Pop(message, kLongMs)) return nullptr;
    } while (message->GetType() == MessageDispatcher::kStarted);
    return message;
  }
  rc_ptr<Message> NextOfAll() {
    rc_ptr<Message> message;
    queue_.Pop(message, kLongMs);
    return message;
  }
  u32 GetSize() { return queue_.GetSize(); }

 private:
  void OnMessage(rc_ptr<Message> message) { queue_.Push(message); }
  BlockingQueue<rc_ptr<Message>> queue_;
};

class MessageDispatcherTest : public testing::Test {
 protected:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(WSAStartup(0x0202, &data), 0);
    SocketStream::SetDefaultTimeout(kLongMs);
    Make("", 0);
  }
  void TearDown() override {
    Stop();
    dispatcher_.reset();
    WSACleanup();
  }

  void Make(const std::string& host, u16 port) {
    dispatcher_ = std::make_unique<MessageDispatcher>(host, port, name_);
    dispatcher_->AddErrorListener(MakeDelegate(&MessageDispatcherTest::OnError, this));
    dispatcher_->AddReactorErrorListener(MakeDelegate(&MessageDispatcherTest::OnError, this));
  }
  void Start() {
    dispatcher_->AddClient(kService, inbox_.Handler(), 1);
    thread_ = new Thread("dispatcher");
    thread_->Start(MakeDelegate(&MessageDispatcherTest::Run, this));
  }
  void Run() { result_ = dispatcher_->Run(); }
  void Stop() {
    if (!thread_) return;
    dispatcher_->Stop();
    thread_->Wait(kNoLimit);
    thread_.Reset();
    dispatcher_->Close();
  }
  // Connects, again and again until the dispatcher listens.
  rc_ptr<MessageChannel> Connect() {
    rc_ptr<IpcSocket> socket(new IpcSocket());
    while (!socket->Connect(name_, kLongMs)) SwitchToThread();
    return new IpcChannel(socket);
  }
  // Expects that the next message is of this type and tells of this channel.
  void ExpectTold(u32 type, const Address& channel) {
    const rc_ptr<Message> message = inbox_.Next();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->GetType(), type);
    EXPECT_EQ(message->GetAddress(), channel);
  }
  void OnError(std::string text) { errors_.Push(text); }
  std::string NextError() {
    std::string text;
    errors_.Pop(text, kLongMs);
    return text;
  }

  const std::string name_ = test::UniqueName();
  std::unique_ptr<MessageDispatcher> dispatcher_;
  Inbox inbox_;
  // For further clients.
  Inbox all_;
  Inbox other_;
  BlockingQueue<std::string> errors_;
  rc_ptr<Thread> thread_;
  int result_ = 99;
};

TEST_F(MessageDispatcherTest, RoutesByDestination) {
  dispatcher_->AddClient(0, all_.Handler(), 1);
  dispatcher_->AddClient(5, other_.Handler(), 1);
  Start();
  const rc_ptr<MessageChannel> channel = Connect();
  channel->Send(TextMessage("to five", 5));
  channel->Send(TextMessage("to nobody", 7));
  channel->Send(TextMessage("to two", 2));
  EXPECT_EQ(TextOf(inbox_.Next()), "to two");
  EXPECT_EQ(TextOf(other_.Next()), "to five");
  for (const char* text : {"to five", "to nobody", "to two"}) EXPECT_EQ(TextOf(all_.Next()), text);
  EXPECT_EQ(other_.GetSize(), 0u);
}

// What a peer sends, of the types that a client names: the rest comes from this process alone.
TEST_F(MessageDispatcherTest, APeerSpeaksForItselfOnly) {
  constexpr u32 kOwn = 102;
  dispatcher_->AddClient(5, other_.Handler(), 1, [](u32 type) { return type != kOwn; });
  Start();
  const rc_ptr<MessageChannel> channel = Connect();
  for (u32 type : {MessageDispatcher::kTick, MessageDispatcher::kStarted, MessageDispatcher::kClosed,
                   MessageDispatcher::kTimedOut, MessageDispatcher::kTimedOut + 1, kOwn}) {
    channel->Send(new Message(type, kService, 5));
    channel->Send(new Message(type, kService, kService));
  }
  dispatcher_->Post(new Message(kOwn, 5, 5), false);
  EXPECT_EQ(other_.Next()->GetType(), kOwn);
  channel->Send(TextMessage("last", 5));
  channel->Send(TextMessage("last"));
  EXPECT_EQ(TextOf(other_.Next()), "last");
  EXPECT_EQ(inbox_.Next()->GetType(), kOwn);
  EXPECT_EQ(TextOf(inbox_.Next()), "last");
  // The start of this dispatcher, which is told once.
  EXPECT_LE(other_.GetSize() + inbox_.GetSize(), 2u);
}

TEST_F(MessageDispatcherTest, TellsOfItsStartAndStopsWithoutError) {
  Start();
  const rc_ptr<Message> message = inbox_.NextOfAll();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->GetType(), MessageDispatcher::kStarted);
  EXPECT_EQ(message->GetDestination(), 0u);
  Stop();
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(errors_.GetSize(), 0u);
}

TEST_F(MessageDispatcherTest, PingIsAnsweredAndReachesNoClient) {
  Start();
  const rc_ptr<MessageChannel> channel = Connect();
  channel->Send(new Message(MessageDispatcher::kPing, 0, kService));
  const rc_ptr<Message> answer = channel->Receive(static_cast<int>(kLongMs));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->GetType(), MessageDispatcher::kPong);
  channel->Send(new Message(MessageDispatcher::kPong, 0, kService));
  channel->Send(TextMessage("behind"));
  EXPECT_EQ(TextOf(inbox_.Next()), "behind");
}

TEST_F(MessageDispatcherTest, ClosedChannelIsToldAfterItsMessages) {
  Start();
  rc_ptr<MessageChannel> channel = Connect();
  const Address address = channel->GetAddress();
  channel->Send(TextMessage("last"));
  channel.Reset();
  EXPECT_EQ(TextOf(inbox_.Next()), "last");
  ExpectTold(MessageDispatcher::kClosed, address);
  EXPECT_FALSE(dispatcher_->FindChannel(address));
}

TEST_F(MessageDispatcherTest, SilenceIsAskedAboutAndThenEnds) {
  Start();
  const rc_ptr<FakeChannel> lively(new FakeChannel("lively", 20));
  const rc_ptr<FakeChannel> idle(new FakeChannel("idle", 28));
  const rc_ptr<FakeChannel> limit(new FakeChannel("limit", 50));
  const rc_ptr<FakeChannel> gone(new FakeChannel("gone", 53));
  for (const auto& channel : {lively, idle, limit, gone}) ASSERT_TRUE(dispatcher_->RegisterChannel(channel.Get()));
  dispatcher_->Post(new Message(MessageDispatcher::kTick, 0, 0), false);
  EXPECT_EQ(lively->GetSentType(), 0u);
  EXPECT_EQ(idle->GetSentType(), MessageDispatcher::kPing);
  EXPECT_EQ(limit->GetSentType(), MessageDispatcher::kPing);
  ExpectTold(MessageDispatcher::kTimedOut, gone->GetAddress());
  EXPECT_TRUE(gone->isClosed);
  EXPECT_FALSE(idle->isClosed);
  EXPECT_FALSE(dispatcher_->CloseChannel(gone.Get()));

  EXPECT_TRUE(dispatcher_->CloseChannel(idle.Get()));
  EXPECT_TRUE(idle->isClosed);
  ExpectTold(MessageDispatcher::kClosed, idle->GetAddress());
}

// The limit on channels counts only those that the wait loop serves.
TEST_F(MessageDispatcherTest, SocketChannelsLeaveRoomForIpc) {
  class FakeSocketChannel : public FakeChannel {
   public:
    using FakeChannel::FakeChannel;
    int GetHandleType() override { return Reactor::kSelectable; }
  };
  for (u32 i = 0; i < MessageDispatcher::kMaxIpcChannels; ++i) {
    ASSERT_TRUE(dispatcher_->RegisterChannel(new FakeSocketChannel(std::to_string(i))));
  }
  Start();
  Connect()->Send(TextMessage("in"));
  EXPECT_EQ(TextOf(inbox_.Next()), "in");
}

// The wait loop may spend up to 5 s on the introduction of this connector.
TEST_F(MessageDispatcherTest, StopsAtOnceBesideAConnectorThatDoesNotGoOn) {
  Start();
  Connect();
  test::Connector connector(name_);
  connector.TakeTurn();
  connector.Attach();
  connector.Ask();
  connector.AwaitReply();
  const u32 start = GetTickCount();
  Stop();
  EXPECT_LT(GetTickCount() - start, 4000u);
  EXPECT_EQ(result_, 0);
}

TEST_F(MessageDispatcherTest, DelayedMessageIsPostedOnce) {
  Start();
  dispatcher_->PostDelayed(TextMessage("late"), 0, 200);
  dispatcher_->PostDelayed(TextMessage("at once"), 0, 0);
  EXPECT_EQ(TextOf(inbox_.Next()), "at once");
  EXPECT_EQ(TextOf(inbox_.Next()), "late");
}

TEST_F(MessageDispatcherTest, SecondChannelOfAnAddressDoesNotReplaceTheFirst) {
  const rc_ptr<FakeChannel> first(new FakeChannel("same", 0));
  const rc_ptr<FakeChannel> second(new FakeChannel("same", 0));
  EXPECT_TRUE(dispatcher_->RegisterChannel(first.Get()));
  EXPECT_TRUE(dispatcher_->RegisterChannel(second.Get()));
  EXPECT_EQ(dispatcher_->FindChannel(first->GetAddress()).Get(), first.Get());
  EXPECT_FALSE(dispatcher_->FindChannel(Address()));
  EXPECT_FALSE(dispatcher_->RegisterChannel(nullptr));
  dispatcher_->Close();
  EXPECT_TRUE(first->isClosed);
}

class DispatcherSocketsTest : public MessageDispatcherTest {
 protected:
  // A port that was free a moment ago.
  static u16 FreePort() {
    const rc_ptr<ListenSocket> probe(new ListenSocket(SocketAddress("127.0.0.1", 0), false));
    return probe->GetLocalAddress().GetPort();
  }
  void SetUp() override {
    MessageDispatcherTest::SetUp();
    port_ = FreePort();
    Make("127.0.0.1", port_);
  }
  Address TcpAddress() const { return Address(Address::kTcp, "127.0.0.1/" + std::to_string(port_)); }

  u16 port_ = 0;
};

TEST_F(DispatcherSocketsTest, ServesTcp) {
  Start();
  EXPECT_EQ(inbox_.NextOfAll()->GetType(), MessageDispatcher::kStarted);
  rc_ptr<MessageChannel> channel(MessageChannel::Create(TcpAddress(), kLongMs));
  ASSERT_TRUE(channel);
  EXPECT_EQ(channel->GetAddress(), TcpAddress());
  const std::string text(100000, 't');
  EXPECT_TRUE(channel->Send(TextMessage(text)));
  const rc_ptr<Message> got = inbox_.Next();
  EXPECT_EQ(TextOf(got), text);
  EXPECT_EQ(got->GetAddress().GetKind(), Address::kTcp);
  EXPECT_TRUE(dispatcher_->Send(got->GetAddress(), TextMessage("answer")));
  EXPECT_EQ(TextOf(channel->Receive(-1)), "answer");
  channel.Reset();
  ExpectTold(MessageDispatcher::kClosed, got->GetAddress());
}

// The address is that of each datagram's sender. What does not fit into one datagram is not broadcast.
TEST_F(DispatcherSocketsTest, TakesDatagrams) {
  Start();
  EXPECT_EQ(inbox_.NextOfAll()->GetType(), MessageDispatcher::kStarted);
  for (const char* text : {"one", "two"}) {
    const rc_ptr<FakeChannel> framer(new FakeChannel());
    framer->Send(TextMessage(text));
    const rc_ptr<UdpSocket> sender(new UdpSocket(SocketAddress("127.0.0.1", 0)));
    sender->SendTo(framer->Written().data(), framer->written->GetSize(), SocketAddress("127.0.0.1", port_));
    const rc_ptr<Message> got = inbox_.Next();
    EXPECT_EQ(TextOf(got), text);
    EXPECT_EQ(got->GetAddress(), Address(sender->GetLocalAddress(), Address::kUdp, false));
    const rc_ptr<MessageChannel> channel(new SocketChannel(sender.Get(), false));
    EXPECT_TRUE(channel->IsDatagram());
    EXPECT_FALSE(channel->Broadcast(TextMessage(std::string(16385, 'x')), port_));
  }
}

}  // namespace
}  // namespace kestrun
