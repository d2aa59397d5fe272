#include "messaging/ipc_channel.h"

#include <gtest/gtest.h>

#include <ctime>
#include <future>
#include <string>
#include <vector>

#include "../transport/shared/ipc_ends.h"
#include "fakes.h"
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
  EXPECT_FALSE(ends.serverChannel->IsClosed()) << "its peer is gone, but it is still to be closed";
  ends.serverChannel->Close();
  EXPECT_TRUE(ends.serverChannel->IsClosed());
}

TEST(IpcChannel, ConnectsAnewAndByAddress) {
  ChannelEnds ends;
  auto accepted = ends.Accept();
  EXPECT_FALSE(ends.clientChannel->Connect(Address(Address::kInt, ends.name), kLongMs));
  EXPECT_TRUE(ends.clientChannel->Connect(Address(Address::kIpc, ends.name), kLongMs));
  const rc_ptr<IpcChannel> server(new IpcChannel(accepted.get()));
  ends.clientChannel->Send(TextMessage("again"));
  EXPECT_EQ(TextOf(server->Receive(-1)), "again");
  EXPECT_FALSE(ends.clientChannel->IsClosed());

  accepted = ends.Accept();
  const rc_ptr<MessageChannel> made(MessageChannel::Create(Address(Address::kIpc, ends.name), kLongMs));
  ASSERT_TRUE(made);
  EXPECT_TRUE(accepted.get());
  EXPECT_EQ(MessageChannel::Create(Address(Address::kIpc, test::UniqueName()), 100), nullptr);
  EXPECT_EQ(MessageChannel::Create(Address(Address::kInt, "x"), 100), nullptr);
}

}  // namespace
}  // namespace kestrun
