#include "protocol/message_reader.h"

#include <gtest/gtest.h>

#include "protocol/protocol.h"

namespace kestrun {
namespace {

class MessageReaderTest : public testing::Test {
 protected:
  // The code and the text of the exception that a required read throws; empty if it throws none.
  template <class Read>
  std::string FailureOf(Read read) {
    try {
      read(MessageReader(message_));
    } catch (const Message::FormatException& e) {
      return std::to_string(e.GetCode()) + " " + e.what();
    }
    return "";
  }

  rc_ptr<Message> message_ = new Message(MSG_BUILD_RESULT, kMasterService, kStubService);
};

TEST_F(MessageReaderTest, ReadsRequiredSegmentsByTheirOccurrence) {
  message_->AddString(SEG_TOOL, "first").AddString(SEG_TOOL, "").AddI32(SEG_EXIT_CODE, -3);
  std::string text = "unset";
  i32 number = 0;
  const MessageReader reader(message_);
  reader.RequireString(SEG_TOOL, text);
  EXPECT_EQ(text, "first");
  reader.RequireString(SEG_TOOL, text, 1);
  EXPECT_EQ(text, "");
  reader.RequireInt(SEG_EXIT_CODE, number);
  EXPECT_EQ(number, -3);
}

TEST_F(MessageReaderTest, NamesTheRequiredSegmentThatIsMissingOrOfTheWrongSize) {
  message_->AddU64(SEG_EXIT_CODE, 1);
  std::string text;
  i32 number = 0;
  EXPECT_EQ(FailureOf([&](const MessageReader& r) { r.RequireString(SEG_TOOL, text); }), "26 No such segment");
  EXPECT_EQ(FailureOf([&](const MessageReader& r) { r.RequireInt(SEG_EXIT_CODE, number, 1); }), "6 No such segment");
  EXPECT_EQ(FailureOf([&](const MessageReader& r) { r.RequireInt(SEG_EXIT_CODE, number); }), "6 Invalid segment size");
}

TEST_F(MessageReaderTest, LeavesTheDefaultOfAnOptionalSegmentThatDoesNotFit) {
  message_->AddU8(SEG_FLAGS, 1).AddU32(SEG_START_TIME, 5);
  const MessageReader reader(message_);
  u32 flags = 7;
  u64 start = 9;
  std::string project = "p";
  EXPECT_FALSE(reader.ReadUnsigned(SEG_FLAGS, flags));
  EXPECT_FALSE(reader.ReadLong(SEG_START_TIME, start));
  EXPECT_FALSE(reader.ReadString(SEG_PROJECT, project));
  EXPECT_EQ(flags, 7u);
  EXPECT_EQ(start, 9u);
  EXPECT_EQ(project, "p");
}

}  // namespace
}  // namespace kestrun
