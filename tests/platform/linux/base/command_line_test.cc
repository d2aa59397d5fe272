#include "platform/linux/base/command_line.h"

#include <gtest/gtest.h>

#include <random>

#include "../../tool_process.h"
#include "slow_split.h"

namespace kestrun::platform {
namespace {

class Generator {
 public:
  explicit Generator(unsigned seed) : engine_(seed) {}
  unsigned Below(unsigned limit) { return static_cast<unsigned>(engine_() % limit); }
  std::string Text(const std::string& alphabet, unsigned maxLength) {
    std::string text;
    for (unsigned left = Below(maxLength + 1); left > 0; --left) {
      text += alphabet[Below(static_cast<unsigned>(alphabet.size()))];
    }
    return text;
  }

 private:
  std::mt19937 engine_;
};

TEST(CommandLine, SplitsLikeTheSlowReference) {
  Generator generator(1);
  for (int i = 0; i < 40000; ++i) {
    const std::string line = "p " + generator.Text("a\\\" \t", 16);
    ASSERT_EQ(SplitCommandLine(line), SlowSplit(line)) << line;
  }
}

TEST(CommandLine, JoinedAndSplitIsWhatItWas) {
  Generator generator(2);
  for (int i = 0; i < 30000; ++i) {
    Words words{generator.Text("ab \\\t", 8)};
    for (unsigned left = generator.Below(5); left > 0; --left) words.push_back(generator.Text("a\\\" \t\n\v*\x80", 10));
    const std::string line = JoinCommandLine(words);
    ASSERT_EQ(SplitCommandLine(line), words) << line;
  }
}

TEST(CommandLine, AProgramNameKnowsNoBackslashes) {
  EXPECT_EQ(SplitCommandLine(R"("C:\a b\" x)"), (Words{"C:\\a b\\", "x"}));
  EXPECT_EQ(SplitCommandLine(R"(C:\"a b"c d)"), (Words{"C:\\a bc", "d"}));
  EXPECT_EQ(SplitCommandLine(""), (Words{""}));
  EXPECT_EQ(SplitCommandLine(" a"), (Words{"", "a"}));
}

TEST(CommandLine, ArrivesInARealChildAsItWasJoined) {
  Generator generator(3);
  for (int i = 0; i < 20; ++i) {
    Words words{test::ToolPath(), "args"};
    std::string expected;
    for (int n = 0; n < 50; ++n) {
      words.push_back(generator.Text("a\\\" \t'$*\x80", 12));
      expected += "[" + words.back() + "]\n";
    }
    const test::Tool tool = test::StartProgram(JoinCommandLine(words));
    EXPECT_EQ(test::ReadToEnd(tool.output), expected);
  }
}

}  // namespace
}  // namespace kestrun::platform
