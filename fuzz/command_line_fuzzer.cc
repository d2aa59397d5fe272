// Splits command lines: the result equals that of a slow, literal reading of the rules, and a line that was joined from
// words is split into the same words.
//
// Input: a line; and the same bytes as arguments, each up to the byte 0xFF.
#include "fuzz_input.h"
#include "platform/linux/base/command_line.h"
#include "platform/linux/base/slow_split.h"

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  using namespace kestrun::platform;
  const std::string line = "p " + fuzz::Input(data, size).Rest();
  FUZZ_REQUIRE(SplitCommandLine(line) == SlowSplit(line));
  Words words{"a program"};
  for (fuzz::Input input(data, size); !input.IsEmpty();) words.push_back(input.Piece());
  FUZZ_REQUIRE(SplitCommandLine(JoinCommandLine(words)) == words);
  return 0;
}
