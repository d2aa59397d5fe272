#include "dorn/report_page.h"

#include <gtest/gtest.h>

#include "dorn/report_template.h"
#include "support/names.h"

namespace kestrun::dorn {
namespace {

// The part of the page that holds the record.
std::string RecordIn(const std::string& page) {
  const ReportTemplate around = GetReportTemplate();
  EXPECT_EQ(page.substr(0, around.head.size()), around.head);
  EXPECT_EQ(page.substr(page.size() - around.tail.size()), around.tail);
  return page.substr(around.head.size(), page.size() - around.head.size() - around.tail.size());
}

std::string Embedded(const std::string& record) {
  return RecordIn(WriteReportPage(record));
}

TEST(ReportPage, HoldsStyleAndScriptsAndNoMarkOfTheTemplate) {
  const std::string page = WriteReportPage("{}");
  EXPECT_EQ(page.substr(0, 15), "<!doctype html>");
  EXPECT_EQ(page.substr(page.size() - 8), "</html>\n");
  for (const char* part : {"function buildModel(", "function formatTime(", "class Timeline ", "class Page ",
                           ":root[data-theme=", "<script type=\"application/json\" id=\"record\">{}</script>"}) {
    EXPECT_NE(page.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(page.find("{{"), std::string::npos);
}

TEST(ReportPage, LoadsNothing) {
  const std::string page = WriteReportPage("{}");
  EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
  for (const char* reference : {"http:", "https:", " src=", "@import", "url(", "import("}) {
    EXPECT_EQ(page.find(reference), std::string::npos) << reference;
  }
}

TEST(ReportPage, LeavesWhatCanNotBreakItAsItIs) {
  for (const std::string text : {R"({"a": "\"\\ > & ' </"})", R"({"a": "é € 😀 ퟿  "})", "", "\n\t {}\r\n"}) {
    std::string expected = text;
    if (const std::size_t at = expected.find('<'); at != std::string::npos) expected.replace(at, 1, "\\u003c");
    EXPECT_EQ(Embedded(text), expected);
  }
}

TEST(ReportPage, LetsNoTextEndItsElement) {
  for (const char* text :
       {R"(["</script><script>alert(1)</script>"])", R"(["</SCRIPT >"])", R"(["<!--<script>"])", "<", "<<"}) {
    EXPECT_EQ(Embedded(text).find('<'), std::string::npos) << text;
  }
  EXPECT_EQ(Embedded(R"(["<!-- x"])"), R"(["\u003c!-- x"])");
  EXPECT_EQ(Embedded("[\"\xE2\x80\xA8-\xE2\x80\xA9\"]"), R"(["\u2028-\u2029"])");
}

TEST(ReportPage, ReplacesBytesThatAreNoUtf8) {
  const std::string bad = "\xEF\xBF\xBD";
  const struct {
    std::string bytes;
    std::string expected;
  } cases[] = {
      {"a\x80z", "a" + bad + "z"},
      {"\xFF\xFE", bad + bad},
      {"\xC0\xBC"
       "script>",
       bad + bad + "script>"},  // an overlong "<"
      {"\xE0\x80\xBC", bad + bad + bad},
      {"\xED\xA0\x80", bad + bad + bad},            // a surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},  // above U+10FFFF
      {"\xE2\x82", bad + bad},                      // ends too early
      {"\xE2<\xAC", bad + "\\u003c" + bad},
      {"\xC3\"", bad + "\""},
      {"\xF0\x9F\x98", bad + bad + bad},
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
  };
  for (const auto& [bytes, expected] : cases) EXPECT_EQ(Embedded(bytes), expected) << bytes;
}

TEST(ReportPage, IsWrittenFromAFileToAFile) {
  const test::TempFolder folder;
  std::string error;
  const Path record(folder.Write("record.json", "{\"kestrun_build_record\": \"<\"}"));
  const Path page(folder.Write("page.html", std::string(1 << 20, 'x')));
  ASSERT_TRUE(SaveReportPageOf(record, page, error)) << error;
  EXPECT_EQ(RecordIn(folder.Read("page.html")), "{\"kestrun_build_record\": \"\\u003c\"}");
}

TEST(ReportPage, NamesTheFileThatIsNoRecordOrCanNotBeReadOrWritten) {
  const test::TempFolder folder;
  const std::string text = "{\"kestrun_build_record\": 1}";
  const Path record(folder.Write("record.json", text));
  const Path other(folder.Write("other.json", "{\"kestrun_trace\": 1}"));
  const Path nowhere(folder.Write("none", "") + "/x");
  std::string error;
  EXPECT_FALSE(SaveReportPageOf(nowhere, record, error));
  EXPECT_NE(error.find("read " + nowhere.ToString()), std::string::npos) << error;
  EXPECT_FALSE(SaveReportPageOf(other, record, error));
  EXPECT_NE(error.find(other.ToString() + " is no build record"), std::string::npos) << error;
  EXPECT_EQ(folder.Read("record.json"), text);
  EXPECT_FALSE(SaveReportPageOf(record, nowhere, error));
  EXPECT_NE(error.find("write " + nowhere.ToString()), std::string::npos) << error;
}

}  // namespace
}  // namespace kestrun::dorn
