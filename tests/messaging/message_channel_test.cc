#include "messaging/message_channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes.h"

namespace kestrun {
namespace {

using test::FakeChannel;
using test::TextMessage;
using test::TextOf;

std::string Frame(const std::string& text) {
  const rc_ptr<FakeChannel> channel(new FakeChannel());
  channel->Send(TextMessage(text));
  return channel->Written();
}

class MessageChannelTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(channel_->Register(&reactor_, MakeDelegate(&MessageChannelTest::OnMessage, this)));
  }
  void OnMessage(rc_ptr<Message> message, MessageChannel* channel) {
    EXPECT_EQ(channel, channel_.Get());
    EXPECT_EQ(message->GetAddress().ToString(), "int:peer");
    texts_.push_back(TextOf(message));
  }
  // One event, with these bytes ready.
  bool Arrive(const std::string& bytes) {
    channel_->blocks.push_back(bytes);
    return channel_->HandleEvent();
  }

  Reactor reactor_{0};
  const rc_ptr<FakeChannel> channel_{new FakeChannel()};
  std::vector<std::string> texts_;
};

TEST_F(MessageChannelTest, FrameIsLengthAndMessage) {
  channel_->Send(TextMessage("ab"));
  channel_->Send(TextMessage(""));
  EXPECT_EQ(channel_->Written(), std::string("\x12\0\0\0\x65\0\0\x23\x02\0\0\0\x04\0\0\0\x02\0\0\0ab"
                                             "\x10\0\0\0\x65\0\0\x23\x03\0\0\0\x04\0\0\0\0\0\0\0",
                                             42));
}

TEST_F(MessageChannelTest, FrameInOneBytePiecesIsDeliveredOnce) {
  const std::string frame = Frame("piecemeal");
  for (const char byte : frame.substr(0, frame.size() - 1)) Arrive(std::string(1, byte));
  EXPECT_TRUE(texts_.empty());
  Arrive(frame.substr(frame.size() - 1));
  EXPECT_EQ(texts_, std::vector<std::string>{"piecemeal"});
}

TEST_F(MessageChannelTest, FramesOfOneReadAreAllDelivered) {
  Arrive(Frame("one") + Frame("two") + Frame("three").substr(0, 2));
  EXPECT_EQ(texts_, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(channel_->input->GetAvailable(), 2u);
  Arrive(Frame("three").substr(2));
  EXPECT_EQ(texts_.back(), "three");
}

TEST_F(MessageChannelTest, WhatCameBeforeTheEndIsDelivered) {
  channel_->staysUp = false;
  EXPECT_FALSE(Arrive(Frame("one") + Frame("two") + Frame("cut off").substr(0, 20)));
  EXPECT_EQ(texts_, (std::vector<std::string>{"one", "two"}));
}

TEST_F(MessageChannelTest, BufferIsKeptUpToAMebibyte) {
  Arrive(Frame(std::string(3 << 20, 'x')));
  Arrive(Frame("small"));
  EXPECT_LT(channel_->input->GetCapacity(), 0x100000u);
  const u8* buffer = channel_->input->GetData();
  Arrive(Frame("small too"));
  EXPECT_EQ(channel_->input->GetData(), buffer);
}

TEST_F(MessageChannelTest, BufferStaysSmallUnderTrafficThatNeverPauses) {
  const std::string frame = Frame(std::string(40000, 'x'));
  Arrive(frame.substr(0, 10));
  for (int i = 0; i < 200; ++i) Arrive(frame.substr(10) + frame.substr(0, 10));
  EXPECT_EQ(texts_.size(), 200u);
  EXPECT_LT(channel_->input->GetCapacity(), 4u << 20);
}

TEST_F(MessageChannelTest, FrameThatIsNoMessageIsRefused) {
  const std::string word(4, '\0');
  const std::string leaf = Frame("abcd").substr(12);
  const std::string cases[] = {
      std::string("\0\0\0\0", 4),                                // no room for a header
      std::string("\7\0\0\0", 4),                                //
      std::string("\xFF\xFF\xFF\xFF", 4),                        // more than any message has
      std::string("\x0C\0\0\0", 4) + word + word + leaf,         // a segment that runs over
      std::string("\x18\0\0\0", 4) + word + word + leaf + word,  // segments that end in a piece of one
  };
  for (const std::string& bytes : cases) {
    const rc_ptr<FakeChannel> channel(new FakeChannel());
    channel->blocks.push_back(bytes);
    EXPECT_THROW(channel->HandleEvent(), Message::FormatException);
  }
}

TEST_F(MessageChannelTest, ReceiveGoesOnWhereATimeoutCutIt) {
  const rc_ptr<FakeChannel> channel(new FakeChannel());
  const std::string frame = Frame("in parts");
  channel->blocks = {frame.substr(0, 3), frame.substr(3, 7)};
  EXPECT_FALSE(channel->Receive(100));
  EXPECT_FALSE(channel->Receive(100));
  channel->blocks = {frame.substr(10) + Frame("next")};
  EXPECT_EQ(TextOf(channel->Receive(100)), "in parts");
  EXPECT_EQ(TextOf(channel->Receive(100)), "next");
}

TEST_F(MessageChannelTest, GivesWhatCameTogetherWithoutAnotherRead) {
  const rc_ptr<FakeChannel> channel(new FakeChannel());
  const std::string frame = Frame("cut");
  channel->blocks = {Frame("one") + Frame("two") + frame.substr(0, 7), frame.substr(7)};
  EXPECT_FALSE(channel->ReceiveBuffered());
  EXPECT_EQ(TextOf(channel->Receive(100)), "one");
  EXPECT_EQ(TextOf(channel->ReceiveBuffered()), "two");
  EXPECT_FALSE(channel->ReceiveBuffered());
  EXPECT_EQ(TextOf(channel->Receive(100)), "cut");
}

TEST_F(MessageChannelTest, ReceiveGivesTheMessageThatCameWithTheEnd) {
  const rc_ptr<FakeChannel> channel(new FakeChannel());
  channel->staysUp = false;
  channel->blocks = {Frame("last")};
  EXPECT_EQ(TextOf(channel->Receive(-1)), "last");
  EXPECT_FALSE(channel->Receive(-1));
}

TEST_F(MessageChannelTest, SendOnABrokenTransportIsFalse) {
  class BrokenStream : public MemoryStream {
    u32 Write(const void*, u32) override { throw StreamException("broken"); }
  };
  class BrokenChannel : public FakeChannel {
   public:
    BrokenChannel() { output_ = new BrokenStream(); }
  };
  const rc_ptr<BrokenChannel> channel(new BrokenChannel());
  EXPECT_FALSE(channel->Send(TextMessage("x")));
  EXPECT_THROW(channel->Transmit(TextMessage("x")), StreamException);
  EXPECT_FALSE(channel->Broadcast(TextMessage("x"), 1));
}

}  // namespace
}  // namespace kestrun
