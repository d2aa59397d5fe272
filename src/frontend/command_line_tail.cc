#include "frontend/command_line_tail.h"

namespace kestrun {

std::string GetCommandLineTail(const std::string& commandLine) {
  const bool quoted = !commandLine.empty() && commandLine.front() == '"';
  const std::size_t end = commandLine.find(quoted ? '"' : ' ', 1);
  if (end == std::string::npos) return {};
  // The character behind a closing quote is taken for the separator, whatever it is.
  const std::size_t start = end + (quoted ? 2 : 1);
  return start <= commandLine.size() ? commandLine.substr(start) : std::string();
}

}  // namespace kestrun
