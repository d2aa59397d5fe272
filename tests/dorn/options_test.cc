#include "dorn/options.h"

#include <gtest/gtest.h>

namespace kestrun::dorn {
namespace {

using Words = std::vector<std::string>;

TEST(DornOptions, EndAtTheFirstWordThatIsNoneOrAtTheMark) {
  const struct {
    Words arguments;
    std::string id;
    Words command;
  } cases[] = {
      {{"make", "-j8", "--help"}, "", {"make", "-j8", "--help"}},
      {{"--", "--version", "--"}, "", {"--version", "--"}},
      {{"--id", "a.b_C-1", "make"}, "a.b_C-1", {"make"}},
      {{"--id", "x", "--", "--id", "y"}, "x", {"--id", "y"}},
      {{"-"}, "", {"-"}},
  };
  for (const auto& [arguments, id, command] : cases) {
    Options options;
    std::string error;
    EXPECT_TRUE(ParseOptions(arguments, options, error)) << error;
    EXPECT_EQ(options.id, id);
    EXPECT_EQ(options.command, command);
    EXPECT_FALSE(options.showHelp || options.showVersion);
  }
}

TEST(DornOptions, NeedNoCommandForHelpAndVersion) {
  Options options;
  std::string error;
  EXPECT_TRUE(ParseOptions({"--help", "--version"}, options, error));
  EXPECT_TRUE(options.showHelp && options.showVersion);
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
                         {"--id", std::string(101, 'a'), "make"}};
  for (const Words& arguments : cases) {
    Options options;
    std::string error;
    EXPECT_FALSE(ParseOptions(arguments, options, error));
    EXPECT_NE(error, "");
  }
}

}  // namespace
}  // namespace kestrun::dorn
