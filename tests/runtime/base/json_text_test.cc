#include "runtime/base/json_text.h"

#include <gtest/gtest.h>

#include "support/json.h"

namespace kestrun {
namespace {

TEST(JsonTextTest, QuotesEveryByteSoThatItComesBack) {
  std::string bytes;
  for (int c = 0; c < 0x80; ++c) bytes += static_cast<char>(c);
  bytes += "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\xA7";
  EXPECT_EQ(test::Json::Parse(QuoteJson(bytes)).string, bytes);
  EXPECT_EQ(QuoteJson("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\"");
}

TEST(JsonTextTest, PutsOneMarkInThePlaceOfEachByteThatIsNoUtf8) {
  const std::string mark = "\xEF\xBF\xBD";
  // A stray byte, a cut character, overlong forms, a surrogate, what is beyond the last character.
  EXPECT_EQ(QuoteJson("a\xFF"
                      "b"),
            "\"a" + mark + "b\"");
  EXPECT_EQ(QuoteJson("\xE2\x82"), "\"" + mark + mark + "\"");
  EXPECT_EQ(QuoteJson("\xC0\x80"), "\"" + mark + mark + "\"");
  EXPECT_EQ(QuoteJson("\xE0\x80\x80"), "\"" + mark + mark + mark + "\"");
  EXPECT_EQ(QuoteJson("\xED\xA0\x80"), "\"" + mark + mark + mark + "\"");
  EXPECT_EQ(QuoteJson("\xF4\x90\x80\x80"), "\"" + mark + mark + mark + mark + "\"");
  EXPECT_EQ(QuoteJson("\xC3\"x"), "\"" + mark + "\\\"x\"");
}

TEST(JsonTextTest, PutsCommasWhereTheyBelong) {
  JsonWriter json;
  json.BeginObject().Key("a").Int(-1).Key("b").BeginArray().EndArray().Key("c").BeginArray();
  json.NewLine().BeginObject().EndObject().NewLine().BeginObject().Key("x").Known(-1).EndObject().EndArray();
  json.Key("d").Bool(false).EndObject();
  EXPECT_EQ(json.GetText(), "{\"a\":-1,\"b\":[],\"c\":[\n{},\n{\"x\":null}],\"d\":false}");
}

}  // namespace
}  // namespace kestrun
