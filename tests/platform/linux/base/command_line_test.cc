#include "platform/linux/base/command_line.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace kestrun::platform {
namespace {

using Words = std::vector<std::string>;

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

TEST(CommandLine, BackslashesCountBeforeQuotesAlone) {
  EXPECT_EQ(SplitCommandLine(R"(p a\\b "c \" d" \\"e f\\" \\\"g)"),
            (Words{"p", R"(a\\b)", R"(c " d)", R"(\e f\)", R"(\"g)"}));
  EXPECT_EQ(SplitCommandLine("p\t\"x\"\"y\" \"\" a\"b c\"d "), (Words{"p", "x\"y", "", "ab cd"}));
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

}  // namespace
}  // namespace kestrun::platform
