#include "frontend/option_parser.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrun {
namespace {

Options Parse(const std::string& text) {
  Options options;
  EXPECT_TRUE(ParseOptions(options, text, false)) << text;
  return options;
}

bool Parses(const std::string& text, bool fromEnvironment = false) {
  Options options;
  return ParseOptions(options, text, fromEnvironment);
}

// Tokens as text: quoted ones in brackets, each with its position.
std::string Show(const std::string& text) {
  std::string shown;
  for (const Token& token : TokenizeCommandLine(text).tokens) {
    shown += (token.quoted ? "[" + token.text + "]" : token.text) + "@" + std::to_string(token.position) + " ";
  }
  return shown;
}

TEST(Tokenizer, SplitsAtWhitespaceAndEndsAQuotedTokenOnlyAtAQuoteBeforeWhitespaceOrTheEnd) {
  const struct {
    const char* text;
    const char* tokens;
  } cases[] = {
      {"", ""},
      {" \t\r\n", "@4 "},
      {"a  b ", "a@0 b@3 "},
      {" \"a b\"\tc", "[a b]@2 c@7 "},
      {"\"\" x", "[]@1 x@3 "},
      {"\"a\"b c\" d", "[a\"b c]@1 d@8 "},
      {"\"a b", "[a b]@1 "},
      {"x\"a b\"", "x\"a@0 b\"@4 "},
      {"a\\\" b", "a\\\"@0 b@4 "},
  };
  for (const auto& c : cases) EXPECT_EQ(Show(c.text), c.tokens) << c.text;
}

TEST(Tokenizer, TakesTheWordsOfAJoinedLineAsTheyAre) {
  const std::vector<std::string> words{"-n", "c\" d", "a\"b", "e f\\", "x\" y"};
  const TokenList list = TokenizeJoinedLine(R"(-n "c\" d" "a\"b" "e f\\" "x\" y")", words);
  Options options;
  EXPECT_TRUE(ParseOptions(options, list, false));
  EXPECT_EQ(options.name, "c\" d");
  EXPECT_EQ(options.tool, "a\"b");
  EXPECT_EQ(options.toolArgs, R"("e f\\" "x\" y")");
}

TEST(ParseOptions, HandsTheArgumentsOnAsTheyWereTyped) {
  const struct {
    const char* text;
    const char* tool;
    const char* arguments;
  } cases[] = {
      {"cl", "cl", ""},
      {"cl  \"a b.c\"   -x ", "cl", "\"a b.c\"   -x "},
      {"\"c:\\my tools\\cl\" /c", "c:\\my tools\\cl", "/c"},
      {"cl --help -t", "cl", "--help -t"},
      {"-chx cl a.c", "-chx", "cl a.c"},
      {"-n x\"a b\" cl", "b\"", "cl"},
      {"-V cl", "-V", "cl"},  // options are case-sensitive
      {"\"\" a", "", "a"},
      {"-n -v cl", "cl", ""},  // a value is the next token, whatever it looks like
  };
  for (const auto& c : cases) {
    const Options options = Parse(c.text);
    EXPECT_EQ(options.tool, c.tool) << c.text;
    EXPECT_EQ(options.toolArgs, c.arguments) << c.text;
  }
}

TEST(ParseOptions, KeepsATimeoutThatIsTooLongForSecondsAtTheLongest) {
  EXPECT_EQ(Parse("-t 71582788 cl").timeoutSeconds, 4294967280u);
  EXPECT_EQ(Parse("-t 71582789 cl").timeoutSeconds, 0xFFFFFFFFu);
  EXPECT_EQ(Parse("-t 99999999999999999999999 cl").timeoutSeconds, 0xFFFFFFFFu);
}

TEST(ParseOptions, FailsOnABadOrMissingValue) {
  for (const char* text :
       {"-t abc cl", "-t -5 cl", "-t \"\" cl", "cl_is_no_tool_here -t", "-t", "-v -n", "-es", "-m \"\" cl"}) {
    const bool isTool = std::string(text).rfind("cl", 0) == 0;
    EXPECT_EQ(Parses(text), isTool) << text;
  }
  EXPECT_FALSE(Parses("-m \"\"", true));
}

TEST(ParseOptions, NeedsAToolOrSomethingElseToDoOnTheCommandLineAlone) {
  for (const char* text : {"--help", "--version", "-master", "-s x", " "}) EXPECT_TRUE(Parses(text)) << text;
  for (const char* text : {"", "-v", "-p x", "-s \"\""}) EXPECT_FALSE(Parses(text)) << text;
}

TEST(ParseOptions, TakesNoToolFromTheEnvironment) {
  for (const char* text : {"", "-v -k", "-s x", "-master"}) EXPECT_TRUE(Parses(text, true)) << text;
  for (const char* text : {"cl", "-v cl", " ", "-chx"}) EXPECT_FALSE(Parses(text, true)) << text;
}

TEST(ParseOptions, TellsTheCauseOfAFailureInTheEnvironment) {
  const struct {
    const char* text;
    const char* cause;
  } cases[] = {
      {"-k", ""},
      {" ", "it holds nothing but blanks"},
      {"-k gcc", "\"gcc\" is no option; a tool stands on the command line"},
      {"-K", "\"-K\" is no option of kestrun"},
      {"-di", "\"-di\" is no option of kestrun"},
      {"-k -p", "-p wants a value behind it: -p <name>"},
  };
  for (const auto& c : cases) {
    Options options;
    std::string cause = "left as it was";
    ParseOptions(options, c.text, true, &cause);
    EXPECT_EQ(cause, c.cause) << c.text;
  }
}

class MergeTest : public testing::Test {
 protected:
  Options Merge(const std::string& environment, const std::string& commandLine) {
    Options fromEnvironment;
    Options result;
    EXPECT_TRUE(ParseOptions(fromEnvironment, environment, true));
    MergeOptions(result, fromEnvironment, Parse(commandLine));
    return result;
  }
};

// An option that the table can read and not merge would be lost here.
TEST_F(MergeTest, KeepsEveryOptionOfTheCommandLineAndOfTheEnvironment) {
  const std::string text =
      "-t 1 -v -t 5 -n \"my job\" -m # -s x.kjs -master -e -es stop -er ready -ef finish -id 42 -k --help --version";
  for (const Options& options :
       {Merge("", "-p a -p proj " + text + " cl /c ##I:a.c"), Merge(text, "-p proj cl /c ##I:a.c")}) {
    EXPECT_EQ(options.timeoutSeconds, 300u);
    EXPECT_EQ(options.name, "my job");
    EXPECT_EQ(options.marker, "#");
    EXPECT_EQ(options.scriptPath, "x.kjs");
    EXPECT_TRUE(options.master);
    EXPECT_EQ(options.project, "proj");
    EXPECT_TRUE(options.expandEnvironment);
    EXPECT_EQ(options.stopEvent, "stop");
    EXPECT_EQ(options.readyEvent, "ready");
    EXPECT_EQ(options.finishEvent, "finish");
    EXPECT_EQ(options.id, "42");
    EXPECT_EQ(options.flags, 0x420u);
    EXPECT_TRUE(options.showHelp);
    EXPECT_TRUE(options.showVersion);
    EXPECT_EQ(options.tool, "cl");
    EXPECT_EQ(options.toolArgs, "/c $$I:a.c");
  }
}

TEST_F(MergeTest, PutsTheCommandLineOverTheEnvironment) {
  const Options options = Merge("-v -t 1 -n env -id 1 -e -s env.kjs", "-k -n line -id 2 cl a");
  EXPECT_EQ(options.flags, 0x420u);
  EXPECT_EQ(options.timeoutSeconds, 60u);
  EXPECT_EQ(options.name, "line");
  EXPECT_EQ(options.id, "2");
  EXPECT_TRUE(options.expandEnvironment);
  EXPECT_EQ(options.scriptPath, "env.kjs");
  EXPECT_EQ(options.tool, "cl");
}

TEST_F(MergeTest, OverridesNothingWithEmptyValues) {
  const Options options = Merge("-t 1 -n env -m #", "-t 5 -t 0 -n line -n \"\" -m $ cl");
  EXPECT_EQ(options.timeoutSeconds, 60u);
  EXPECT_EQ(options.name, "env");
  EXPECT_EQ(options.marker, "#");
}

TEST_F(MergeTest, TakesTheProjectFromTheCommandLineUnlessThatEmptiesIt) {
  EXPECT_EQ(Merge("-p env", "cl").project, "default");
  EXPECT_EQ(Merge("-p env", "-p line cl").project, "line");
  EXPECT_EQ(Merge("-p env", "-p \"\" cl").project, "env");
}

TEST_F(MergeTest, AppliesTheMarkerOfTheEnvironmentToTheCommandLine) {
  EXPECT_EQ(Merge("-m #", "cl ##I:a.c").toolArgs, "$$I:a.c");
  EXPECT_EQ(Merge("-m #", "-m ! cl !!I:a #").toolArgs, "$$I:a #");
}

}  // namespace
}  // namespace kestrun
