#include "client/job_script.h"

#include <algorithm>
#include <cstdlib>

#include "runtime/base/text.h"

namespace kestrun {

namespace {

constexpr const char* kBlanks = " \t";
constexpr const char* kEchoWord = "echo";
constexpr std::size_t kEchoLength = 4;

std::string FromFirstNonBlank(const std::string& text, std::size_t position) {
  const std::size_t start = text.find_first_not_of(kBlanks, position);
  return start == std::string::npos ? std::string() : text.substr(start);
}

// A quoted tool ends at the next quote, any other at the first space, which is dropped. Tabs do not end it.
ScriptJob ParseJobLine(const std::string& line) {
  const bool quoted = line.front() == '"';
  const std::size_t start = quoted ? 1 : 0;
  const std::size_t end = line.find(quoted ? '"' : ' ', start);
  ScriptJob job;
  job.tool = line.substr(start, end - start);
  if (end != std::string::npos) job.arguments = line.substr(end + 1);
  return job;
}

// The number, from 1, of the first line of each logical line that SplitLines gives. A CR alone ends a line for
// SplitLines, but does not count as one here, as in editors.
std::vector<u32> NumberLines(const std::string& text) {
  constexpr const char* kLineEnds = "\r\n";
  std::vector<u32> numbers;
  u32 number = 1;
  std::size_t counted = 0;
  bool continued = false;
  std::size_t begin = text.find_first_not_of(kLineEnds);
  while (begin != std::string::npos) {
    number += static_cast<u32>(std::count(text.begin() + static_cast<std::ptrdiff_t>(counted),
                                          text.begin() + static_cast<std::ptrdiff_t>(begin), '\n'));
    counted = begin;
    const std::size_t end = std::min(text.find_first_of(kLineEnds, begin), text.size());
    if (!continued) numbers.push_back(number);
    continued = end < text.size() && text[end - 1] == '\\';
    begin = text.find_first_not_of(kLineEnds, end);
  }
  return numbers;
}

}  // namespace

std::string ExpandScriptVariables(const std::string& text) {
  std::string result;
  std::size_t copied = 0;
  std::size_t open = text.find('%');
  while (open != std::string::npos) {
    const std::size_t close = text.find('%', open + 1);
    if (close == std::string::npos) break;
    if (const char* value = std::getenv(text.substr(open + 1, close - open - 1).c_str())) {
      result.append(text, copied, open - copied).append(value);
      copied = close + 1;
    }
    open = text.find('%', close + 1);
  }
  return result.append(text, copied);
}

std::vector<ScriptJob> ParseJobScript(const std::string& text) {
  std::vector<ScriptJob> jobs;
  std::string echoText;
  const std::vector<u32> numbers = NumberLines(text);
  std::size_t index = 0;
  for (const std::string& logicalLine : SplitLines(text, true)) {
    const u32 number = numbers[index++];
    const std::string line = FromFirstNonBlank(logicalLine, 0);
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;
    // "echo" needs no blank behind it, so a line that only begins with the word counts as well.
    if (line.compare(0, kEchoLength, kEchoWord) == 0) {
      echoText += FromFirstNonBlank(line, kEchoLength) + "\r\n";
      continue;
    }
    jobs.push_back(ParseJobLine(line));
    jobs.back().line = number;
    jobs.back().echoText.swap(echoText);
  }
  return jobs;
}

}  // namespace kestrun
