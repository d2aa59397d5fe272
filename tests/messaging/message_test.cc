#include "messaging/message.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "text_of_failure.h"

namespace kestrun {
namespace {

using Segment = Message::Segment;
using test::TextOfFailure;

std::string Bytes(const Message::Streams& streams) {
  std::string all;
  for (const auto& stream : streams) {
    const auto& memory = static_cast<const MemoryStream&>(*stream);
    all.append(reinterpret_cast<const char*>(memory.GetData()), memory.GetSize());
  }
  return all;
}

std::string Bytes(const Message& message) {
  Message::Streams streams;
  const u32 size = message.Serialize(streams);
  EXPECT_EQ(size, Bytes(streams).size());
  return Bytes(streams);
}

std::string Word(u32 value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

rc_ptr<Message> Parse(const std::string& bytes) {
  MemoryStream stream(const_cast<char*>(bytes.data()), static_cast<u32>(bytes.size()), true);
  return new Message(Address(), static_cast<u32>(bytes.size()), stream);
}

rc_ptr<Message> ParseBeside(const Message& alike, const std::string& bytes) {
  MemoryStream stream(const_cast<char*>(bytes.data()), static_cast<u32>(bytes.size()), true);
  return new Message(Address(), static_cast<u32>(bytes.size()), stream, &alike);
}

// A message of these bytes behind its header.
rc_ptr<Message> ParseSegments(const std::string& bytes) {
  return Parse(Word(101) + Word(0) + bytes);
}

std::string FailureOf(const std::string& segments) {
  return TextOfFailure([&] { ParseSegments(segments); });
}

std::string Text(const rc_ptr<Segment>& segment) {
  std::string text = "unset";
  if (segment) GetValue(*segment, text);
  return text;
}

TEST(Message, HasTheBytesOfTheFormat) {
  Message message(101, 3, 2);
  message.SetSequence(2);
  message.AddU32(4, 7);
  EXPECT_EQ(Bytes(message),
            std::string("\x65\x00\x00\x23\x02\x00\x00\x00\x04\x00\x00\x00\x04\x00\x00\x00\x07\x00\x00\x00", 20));
}

TEST(Message, HeaderKeepsItsFieldsApart) {
  const Message message(0xFF000065, 0xF3, 0x12);
  EXPECT_EQ(message.GetType(), 0x65u);
  EXPECT_EQ(message.GetSource(), 3u);
  EXPECT_EQ(message.GetDestination(), 2u);
  std::ostringstream out;
  message.Describe(out);
  EXPECT_EQ(out.str(), "Type=587202661 Sequence=0 Segments=0");
}

TEST(Message, EveryKindOfValueComesBack) {
  Message sent(600, 2, 3);
  sent.AddString(1, "").AddString(2, std::string("a\0b", 3)).AddPath(3, Path("dir/file")).AddText(4, "text");
  sent.AddU8(5, 0xFE).AddI32(6, -1).AddU32(7, 0xFFFFFFFF).AddI64(8, -2).AddU64(9, 0xFFFFFFFF00000001);
  const rc_ptr<Message> got = Parse(Bytes(sent));
  ASSERT_EQ(got->GetSegmentCount(), 9u);
  EXPECT_EQ(Text(got->FindSegment(1)), "");
  EXPECT_EQ(Text(got->FindSegment(2)), std::string("a\0b", 3));
  Path path;
  EXPECT_TRUE(GetValue(*got->FindSegment(3), path));
  EXPECT_EQ(path.ToString(), "dir/file");
  EXPECT_EQ(Text(got->FindSegment(4)), "text");
  u8 byte = 0;
  EXPECT_TRUE(GetValue(*got->FindSegment(5), byte) && byte == 0xFE);
  i32 number = 0;
  EXPECT_TRUE(GetValue(*got->FindSegment(6), number) && number == -1);
  u32 word = 0;
  EXPECT_TRUE(GetValue(*got->FindSegment(7), word) && word == 0xFFFFFFFF);
  std::int64_t wide = 0;
  EXPECT_TRUE(GetValue(*got->FindSegment(8), wide) && wide == -2);
  u64 big = 0;
  EXPECT_TRUE(GetValue(*got->FindSegment(9), big) && big == 0xFFFFFFFF00000001);
}

TEST(Message, TreeComesBack) {
  const rc_ptr<Segment> inner(new Segment(300));
  inner->AddNested(Segment::FromString(301, "PATH").Get());
  inner->AddNested(Segment::FromString(301, "again").Get());
  const rc_ptr<Segment> outer(new Segment(9));
  outer->AddNested(inner.Get());
  outer->AddNested(new Segment(10));
  Message sent(101, 3, 2);
  sent.AddSegment(outer.Get());
  sent.AddString(1, "behind");
  const rc_ptr<Message> got = Parse(Bytes(sent));
  const auto variable = got->FindSegment(9)->FindNested(300);
  ASSERT_TRUE(variable);
  EXPECT_EQ(Text(variable->FindNested(301, 1)), "again");
  EXPECT_EQ(got->FindSegment(9)->GetNestedCount(), 2u);
  EXPECT_EQ(got->FindSegment(9)->GetNested(1)->GetDataLength(), 0u);
  EXPECT_EQ(Text(got->FindSegment(1)), "behind");
  EXPECT_FALSE(got->FindSegment(1, 1));
  EXPECT_FALSE(got->GetSegment(2));
}

TEST(Message, LargeDataIsSharedAndNotCopied) {
  for (const auto& [length, streamCount] : {std::pair{16384u, 1u}, {16385u, 3u}}) {
    Message message(1, 0, 0);
    message.AddString(1, std::string(length, 'x')).AddString(2, "behind");
    Message::Streams streams;
    message.Serialize(streams);
    ASSERT_EQ(streams.size(), streamCount);
    if (streamCount == 3) {
      const auto& shared = static_cast<const MemoryStream&>(*streams[1]);
      EXPECT_EQ(shared.GetData(), message.FindSegment(1)->GetDataBegin());
    }
    const rc_ptr<Message> got = Parse(Bytes(streams));
    EXPECT_EQ(got->FindSegment(1)->GetDataLength(), length);
    EXPECT_EQ(Text(got->FindSegment(2)), "behind");
  }
}

TEST(Message, TypesHave28Bits) {
  const rc_ptr<Message> got = ParseSegments(Word(0x70000005) + Word(1) + "x");
  EXPECT_EQ(Text(got->FindSegment(5)), "x");
  EXPECT_EQ(Bytes(*got).substr(8, 4), Word(5));
  EXPECT_EQ(Segment(0xF0000005).GetType(), 5u);
}

TEST(Message, EmptyContainersAreLeavesOrEmptyOnes) {
  Message message(1, 0, 0);
  message.AddSegment(new Segment(7));
  EXPECT_EQ(Bytes(message).substr(8), Word(7) + Word(0));
  for (const u32 count : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    const rc_ptr<Message> got = ParseSegments(Word(0x80000007) + Word(count));
    EXPECT_EQ(got->FindSegment(7)->GetNestedCount(), 0u);
  }
  EXPECT_EQ(Parse(Word(5) + Word(6))->GetSequence(), 6u);
}

TEST(Message, BadBytesAreRefusedWithTheirCause) {
  EXPECT_EQ(FailureOf("ab"), "Not enough bytes for segment type");
  EXPECT_EQ(FailureOf(Word(5) + "abc"), "Not enough bytes for segment length");
  EXPECT_EQ(FailureOf(Word(0x80000005) + "abc"), "Not enough bytes for nested-segment count");
  EXPECT_EQ(FailureOf(Word(5) + Word(4) + "abc"), "Not enough bytes for segment data");
  EXPECT_EQ(FailureOf(Word(5) + Word(0x20000001)), "Not enough bytes for segment data");
  EXPECT_EQ(FailureOf(Word(5) + Word(0x80000000)), "Invalid (too long) segment-length");
  EXPECT_EQ(FailureOf(Word(0x80000005) + Word(0x7FFFFFFF)), "Not enough bytes for segment type");
  EXPECT_THROW(Parse("1234567"), Message::FormatException);
  MemoryStream cut(const_cast<char*>("12"), 2, true);
  EXPECT_THROW(Message(Address(), 8, cut), Message::FormatException);
}

TEST(Message, NestingIsBounded) {
  const auto nest = [](u32 depth) {
    std::string bytes;
    for (u32 i = 0; i < depth; ++i) bytes += Word(0x80000001) + Word(1);
    return bytes + Word(2) + Word(0);
  };
  EXPECT_EQ(FailureOf(nest(64)), "");
  EXPECT_EQ(FailureOf(nest(65)), "Segments nested too deeply");
  EXPECT_EQ(FailureOf(nest(100000)), "Segments nested too deeply");
}

std::string BytesOfRequest(const std::string& arguments) {
  const rc_ptr<Segment> container(new Segment(300));
  container->AddNested(Segment::FromString(301, "name").Get());
  container->AddNested(Segment::FromString(302, "value").Get());
  Message message(101, 3, 2);
  message.AddString(1, arguments).AddSegment(container.Get());
  message.AddU32(31, 7);
  return Bytes(message);
}

TEST(Message, SharesEqualSegmentsWithOneThatIsAlike) {
  const rc_ptr<Message> first = Parse(BytesOfRequest("one"));
  const rc_ptr<Message> second = ParseBeside(*first, BytesOfRequest("two"));
  EXPECT_EQ(Bytes(*second), BytesOfRequest("two"));
  EXPECT_NE(second->GetSegment(0).Get(), first->GetSegment(0).Get());
  EXPECT_EQ(second->GetSegment(1).Get(), first->GetSegment(1).Get());
  EXPECT_EQ(second->GetSegment(2).Get(), first->GetSegment(2).Get());
}

// Cut or changed at any place, the bytes of a message are a message or a FormatException, and nothing else; with or
// without an undamaged message beside it they are the same.
TEST(Message, DamageNeverGoesBeyondAnException) {
  const std::string good = BytesOfRequest("arguments");
  const rc_ptr<Message> alike = Parse(good);
  u32 refused = 0;
  for (size_t at = 0; at < good.size(); ++at) {
    for (const int change : {-1, 0x01, 0x80, 0xFF}) {
      std::string bad = change < 0 ? good.substr(0, at) : good;
      if (change >= 0) bad[at] = static_cast<char>(bad[at] ^ change);
      const std::string failure = TextOfFailure([&] { ParseBeside(*alike, bad); });
      EXPECT_EQ(TextOfFailure([&] { Parse(bad); }), failure);
      if (failure.empty()) {
        EXPECT_EQ(Bytes(*ParseBeside(*alike, bad)), Bytes(*Parse(bad)));
      } else {
        ++refused;
      }
    }
  }
  EXPECT_GT(refused, good.size());
}

}  // namespace
}  // namespace kestrun
