// A slow and obvious reading of command lines, to compare the real one with.
#ifndef KESTRUN_TESTS_PLATFORM_LINUX_BASE_SLOW_SPLIT_H_
#define KESTRUN_TESTS_PLATFORM_LINUX_BASE_SLOW_SPLIT_H_

#include <string>
#include <vector>

namespace kestrun::platform {

using Words = std::vector<std::string>;

// The rules for one argument, spelled out character by character: how many backslashes stand before each quote decides.
inline std::string SlowArgument(const std::string& text, std::size_t& at) {
  std::string argument;
  bool quoted = false;
  for (; at < text.size(); ++at) {
    std::size_t backslashes = 0;
    while (at + backslashes < text.size() && text[at + backslashes] == '\\') ++backslashes;
    const bool beforeQuote = at + backslashes < text.size() && text[at + backslashes] == '"';
    if (backslashes > 0) {
      argument += std::string(beforeQuote ? backslashes / 2 : backslashes, '\\');
      at += backslashes;
      if (!beforeQuote || backslashes % 2 == 0) {
        --at;
        continue;
      }
      argument += '"';
    } else if (text[at] == '"' && quoted && text.compare(at, 2, "\"\"") == 0) {
      argument += '"';
      ++at;
    } else if (text[at] == '"') {
      quoted = !quoted;
    } else if (!quoted && (text[at] == ' ' || text[at] == '\t')) {
      break;
    } else {
      argument += text[at];
    }
  }
  return argument;
}

// Of a line whose program is the one character at its start.
inline Words SlowSplit(const std::string& text) {
  Words words{text.substr(0, 1)};
  std::size_t at = 1;
  while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) words.push_back(SlowArgument(text, at));
  return words;
}

}  // namespace kestrun::platform

#endif  // KESTRUN_TESTS_PLATFORM_LINUX_BASE_SLOW_SPLIT_H_
