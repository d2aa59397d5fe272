#include "dorn/options.h"

#include <gtest/gtest.h>

namespace kestrun::dorn {
namespace {

using Words = std::vector<std::string>;
using Action = Options::Action;

TEST(DornOptions, EndAtTheFirstWordThatIsNoneOrAtTheMark) {
  const struct {
    Words arguments;
    std::string id;
    u32 jobs;
    Words command;
  } cases[] = {
      {{"make", "-j8", "--help"}, "", 0, {"make", "-j8", "--help"}},
      {{"--", "--version", "--"}, "", 0, {"--version", "--"}},
      {{"--id", "a.b_C-1", "make"}, "a.b_C-1", 0, {"make"}},
      {{"--id", "x", "--", "--id", "y"}, "x", 0, {"--id", "y"}},
      {{"--id", std::string(99, 'a'), "make"}, std::string(99, 'a'), 0, {"make"}},
      {{"-j", "3", "make", "-j", "4"}, "", 3, {"make", "-j", "4"}},
      {{"-j1024", "make"}, "", 1024, {"make"}},
      {{"-"}, "", 0, {"-"}},
  };
  for (const auto& [arguments, id, jobs, command] : cases) {
    Options options;
    std::string error;
    EXPECT_TRUE(ParseOptions(arguments, options, error)) << error;
    EXPECT_EQ(options.id, id);
    EXPECT_EQ(options.jobs, jobs);
    EXPECT_EQ(options.command, command);
    EXPECT_EQ(options.action, Action::kBuild);
  }
}

TEST(DornOptions, TellWhatToShowOfABuild) {
  Options options;
  std::string error;
  ASSERT_TRUE(ParseOptions({"--trace", "t", "--record", "r", "--no-summary", "make", "--summary"}, options, error));
  EXPECT_EQ(options.traceFile, "t");
  EXPECT_EQ(options.recordFile, "r");
  EXPECT_EQ(options.summary, Options::Summary::kNever);
  EXPECT_EQ(options.command, (Words{"make", "--summary"}));
  for (const Words& wrong : {Words{"--json", "make"}, Words{"--watch", "--help", "x", "--json"}, Words{"--trace"}}) {
    Options none;
    EXPECT_FALSE(ParseOptions(wrong, none, error)) << wrong[0];
  }
}

TEST(DornOptions, NeedNoCommandForWhatOnlyTells) {
  const std::pair<Words, Action> cases[] = {{{"--help", "--version"}, Action::kHelp},
                                            {{"--version"}, Action::kVersion},
                                            {{"--where"}, Action::kWhere},
                                            {{"--settings"}, Action::kListSettings},
                                            {{"--settings", "update"}, Action::kUpdateSettings},
                                            {{"--report-from", "a.json", "b.html"}, Action::kReportFrom}};
  for (const auto& [arguments, action] : cases) {
    Options options;
    std::string error;
    EXPECT_TRUE(ParseOptions(arguments, options, error)) << error;
    EXPECT_EQ(options.action, action);
  }
}

TEST(DornOptions, AreRefusedWithAReason) {
  const Words cases[] = {{},
                         {"--"},
                         {""},
                         {"-x", "make"},
                         {"--id"},
                         {"--id", ""},
                         {"--id", "a b", "make"},
                         {"--id", "a\"", "make"},
                         {"--id", std::string(100, 'a'), "make"},
                         {"-j"},
                         {"-j", "make"},
                         {"-j0", "make"},
                         {"-j-1", "make"},
                         {"-j1025", "make"},
                         {"-j99999999999999999999", "make"},
                         {"--settings", "make"},
                         {"--settings", "update", "x"},
                         {"--report-from"},
                         {"--report-from", "a.json"},
                         {"--report-from", "a.json", ""},
                         {"--report-from", "a.json", "b.html", "make"}};
  for (const Words& arguments : cases) {
    Options options;
    std::string error;
    EXPECT_FALSE(ParseOptions(arguments, options, error));
    EXPECT_NE(error, "");
  }
}

}  // namespace
}  // namespace kestrun::dorn
