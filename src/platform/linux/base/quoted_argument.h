// One argument on a command line, quoted by the rules of the C run-time of Windows. Needs nothing of the C library.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_QUOTED_ARGUMENT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_QUOTED_ARGUMENT_H_

#include <cstddef>
#include <string_view>

namespace kestrun::platform {

inline bool NeedsQuotes(std::string_view argument) {
  for (const char c : argument) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '"') return true;
  }
  return argument.empty();
}

// `line` is a std::string, or what takes characters and texts by += as one does.
template <class Line>
void AppendArgument(std::string_view argument, Line& line) {
  if (!NeedsQuotes(argument)) {
    line += argument;
    return;
  }
  line += '"';
  std::size_t backslashes = 0;
  for (const char c : argument) {
    for (std::size_t i = 0; c == '"' && i <= backslashes; ++i) line += '\\';
    backslashes = c == '\\' ? backslashes + 1 : 0;
    line += c;
  }
  // The closing quote must not be taken for an escaped one.
  for (std::size_t i = 0; i < backslashes; ++i) line += '\\';
  line += '"';
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_QUOTED_ARGUMENT_H_
