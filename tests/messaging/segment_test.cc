#include "messaging/segment.h"

#include <gtest/gtest.h>

#include <string>

#include "support/names.h"
#include "text_of_failure.h"

namespace kestrun {
namespace {

using test::TextOfFailure;

TEST(Segment, RefusesWhatItCanNotHold) {
  Segment parent(1);
  parent.AddNested(new Segment(2));
  const rc_ptr<Segment> leaf = Segment::FromString(1, "");
  MemoryStream empty;
  constexpr u32 kTooLong = Segment::kMaxLength + 1;
  const std::string mixed = "Cannot add data to a Segment containing nested Segments";
  EXPECT_EQ(TextOfFailure([&] { parent.AppendData("x", 1); }), mixed);
  EXPECT_EQ(TextOfFailure([&] { parent.LoadData(Path("x")); }), mixed);
  EXPECT_EQ(TextOfFailure([&] { leaf->AddNested(new Segment(2)); }),
            "Cannot add a nested Segment to a Segment containing data.");
  EXPECT_EQ(TextOfFailure([&] { Segment(empty, kTooLong, 1); }), "Invalid (too long) segment-length;1");
  EXPECT_EQ(TextOfFailure([&] { Segment(1, "x", kTooLong); }), "Invalid (too long) segment-length;2");
  EXPECT_EQ(TextOfFailure([&] { Segment(1, kTooLong, empty); }), "Invalid (too long) segment-length;3");
  EXPECT_THROW(Segment(1, 1, empty), StreamException);
}

TEST(Segment, DataGrowsAndGoesThroughFiles) {
  Segment segment(1);
  EXPECT_FALSE(segment.SaveData(Path("x"), nullptr));
  EXPECT_EQ(segment.GetDataBegin(), nullptr);
  segment.AppendData("one ", 4);
  segment.AppendData("\r\n\0", 3);
  const test::TempFolder folder;
  u32 length = 0;
  ASSERT_TRUE(segment.SaveData(Path(folder.File("data")), &length));
  EXPECT_EQ(length, 7u);
  EXPECT_EQ(folder.Read("data"), std::string("one \r\n\0", 7));
  const rc_ptr<Segment> loaded = Segment::FromString(2, "replaced");
  EXPECT_FALSE(loaded->LoadData(Path(folder.File("missing"))));
  ASSERT_TRUE(loaded->LoadData(Path(folder.File("data"))));
  EXPECT_EQ(loaded->GetText(), std::string("one \r\n\0", 7));
}

}  // namespace
}  // namespace kestrun
