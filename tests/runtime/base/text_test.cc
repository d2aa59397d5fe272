#include "runtime/base/text.h"

#include <gtest/gtest.h>

#include "runtime/base/exception.h"
#include "runtime/base/handle.h"

namespace kestrun {
namespace {

using Pieces = std::vector<std::string>;

TEST(Text, ToLowerLeavesWhatIsNoFileName) {
  EXPECT_EQ(ToLower("C:\\Tools\\CL.EXE"), "c:\\tools\\cl.exe");
  EXPECT_EQ(ToLower(std::string(260, 'A')), std::string(260, 'a'));
  EXPECT_EQ(ToLower(std::string(261, 'A')), std::string(261, 'A'));
}

TEST(Text, SplitLines) {
  EXPECT_EQ(SplitLines("a\\\r\nb\r\nc", true), (Pieces{"a b", "c"}));
  EXPECT_EQ(SplitLines("a\\\r\nb\r\nc", false), (Pieces{"a\\", "b", "c"}));
  EXPECT_EQ(SplitLines("\n\r\na\n\n\rb\n", true), (Pieces{"a", "b"}));
  EXPECT_EQ(SplitLines("", true), Pieces{});
  EXPECT_EQ(SplitLines("a\\\n\\\n  b", true), (Pieces{"a    b"}));
  // At the very end of the text a backslash has nothing to continue with, before line ends it has.
  EXPECT_EQ(SplitLines("a\\", true), (Pieces{"a\\"}));
  EXPECT_EQ(SplitLines("a\\\n\n", true), (Pieces{"a "}));
}

TEST(Text, SplitAndJoin) {
  EXPECT_EQ(Split("a;;b;", ';'), (Pieces{"a", "", "b"}));
  EXPECT_EQ(Split(";", ';'), (Pieces{""}));
  EXPECT_EQ(Split("a", ';'), (Pieces{"a"}));
  EXPECT_EQ(Split("", ';'), Pieces{});
  EXPECT_EQ(SplitToSet("b;a;b", ';'), (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(Join({"a", "", "b"}, ';'), "a;;b");
  EXPECT_EQ(Join({}, ';'), "");
}

TEST(Text, IsNumber) {
  EXPECT_TRUE(IsNumber("0123456789"));
  for (const char* text : {"", "12a", "-1", "+1", " 1", "1.0"}) EXPECT_FALSE(IsNumber(text)) << text;
}

TEST(SystemException, CutsLongTextsAndKeepsItsCode) {
  SystemException failure(5, std::string(300, 'm'), std::string(300, 't'));
  EXPECT_EQ(failure.what(), std::string(255, 'm'));
  EXPECT_EQ(failure.GetTypeName(), std::string(255, 't'));
  EXPECT_EQ(failure.GetCode(), 5);
  EXPECT_EQ(SystemException("m", "t").GetCode(), -1);
  EXPECT_STREQ(PLV::Exception(7, "x").GetTypeName(), "Exception");
}

TEST(UniqueHandle, ClosesOnceAndKeepsTheLastError) {
  UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  ASSERT_TRUE(event.IsValid());
  HANDLE raw = event.Get();
  UniqueHandle taken(std::move(event));
  EXPECT_FALSE(event.IsValid());
  SetLastError(77);
  EXPECT_TRUE(taken.Reset());
  EXPECT_EQ(GetLastError(), 77u);
  EXPECT_FALSE(SetEvent(raw));
}

}  // namespace
}  // namespace kestrun
