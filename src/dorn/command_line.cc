#include "dorn/command_line.h"

namespace kestrun::dorn {

namespace {

// Backslashes are plain characters unless a quote follows: then each is doubled, and the quote gets one of its own.
std::string Quote(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\n\v\"") == std::string::npos) return word;
  std::string quoted = "\"";
  std::size_t backslashes = 0;
  for (const char c : word) {
    if (c == '"') quoted.append(backslashes + 1, '\\');
    backslashes = c == '\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  quoted.append(backslashes, '\\');
  return quoted + '"';
}

}  // namespace

std::string JoinArguments(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty()) line += ' ';
    line += Quote(word);
  }
  return line;
}

}  // namespace kestrun::dorn
