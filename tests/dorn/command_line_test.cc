#include "dorn/command_line.h"

#include <gtest/gtest.h>

#include <random>

#include "runtime/files/memory_stream.h"
#include "runtime/process/process.h"
#include "support/child.h"

namespace kestrun::dorn {
namespace {

TEST(DornCommandLine, QuotesOnlyWhatNeedsIt) {
  EXPECT_EQ(JoinArguments({"make", "-j8", "CC=kestrun gcc", ""}), "make -j8 \"CC=kestrun gcc\" \"\"");
  EXPECT_EQ(JoinArguments({"C:\\a b\\", "\\\\x\\y\\", "say \"hi\"", "\\\""}),
            "\"C:\\a b\\\\\" \\\\x\\y\\ \"say \\\"hi\\\"\" \"\\\\\\\"\"");
}

// Whatever the words are, the program that is started gets the same ones.
TEST(DornCommandLine, WordsReachAProgramAsTheyWere) {
  std::mt19937 random(20260309);
  const char kCharacters[] = "ab\\\\\"\" \t'%&";
  std::vector<std::string> words;
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    std::string word;
    for (auto length = random() % 8; length > 0; --length) word += kCharacters[random() % (sizeof kCharacters - 1)];
    words.push_back(word);
    expected += "[" + word + "]\n";
  }
  std::vector<std::string> command{test::ProgramPath("test_tool"), "args"};
  command.insert(command.end(), words.begin(), words.end());
  const rc_ptr<Process> process = new Process("");
  const rc_ptr<MemoryStream> output = new MemoryStream;
  EXPECT_EQ(process->Run(JoinArguments(command), output.Get(), nullptr, 0, nullptr, 0, false), 0);
  EXPECT_EQ(std::string(output->GetData(), output->GetData() + output->GetSize()), expected);
}

}  // namespace
}  // namespace kestrun::dorn
