#include "platform/linux/base/command_line.h"

#include "platform/linux/base/quoted_argument.h"

namespace kestrun::platform {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// The first word ends at the first blank outside of quotes. Backslashes are plain, since they separate folders.
std::string TakeProgramName(std::string_view text, std::size_t& at) {
  std::string name;
  bool quoted = false;
  for (; at < text.size() && (quoted || !IsBlank(text[at])); ++at) {
    if (text[at] == '"') {
      quoted = !quoted;
    } else {
      name += text[at];
    }
  }
  return name;
}

// Takes the backslashes at `at`. Before a double quote two of them stand for one, and an odd one takes the quote along
// as a plain character.
void TakeBackslashes(std::string_view text, std::size_t& at, std::string& argument) {
  std::size_t count = 0;
  while (at < text.size() && text[at] == '\\') ++at, ++count;
  if (at == text.size() || text[at] != '"') {
    argument.append(count, '\\');
    return;
  }
  argument.append(count / 2, '\\');
  if (count % 2 == 0) return;
  argument += '"';
  ++at;
}

std::string TakeArgument(std::string_view text, std::size_t& at) {
  std::string argument;
  bool quoted = false;
  while (at < text.size() && (quoted || !IsBlank(text[at]))) {
    if (text[at] == '\\') {
      TakeBackslashes(text, at, argument);
    } else if (text[at] != '"') {
      argument += text[at++];
      // Within quotes a doubled quote is a quote, and the quoted part goes on.
    } else if (quoted && at + 1 < text.size() && text[at + 1] == '"') {
      argument += '"';
      at += 2;
    } else {
      quoted = !quoted;
      ++at;
    }
  }
  return argument;
}

void AppendProgramName(const std::string& name, std::string& line) {
  const bool quote = name.empty() || name.find_first_of(" \t") != std::string::npos;
  if (quote) line += '"';
  for (char c : name) {
    if (c != '"') line += c;
  }
  if (quote) line += '"';
}

}  // namespace

std::vector<std::string> SplitCommandLine(std::string_view commandLine) {
  std::vector<std::string> arguments;
  std::size_t at = 0;
  arguments.push_back(TakeProgramName(commandLine, at));
  while (true) {
    while (at < commandLine.size() && IsBlank(commandLine[at])) ++at;
    if (at == commandLine.size()) return arguments;
    arguments.push_back(TakeArgument(commandLine, at));
  }
}

std::string JoinCommandLine(const std::vector<std::string>& arguments) {
  std::string line;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (i == 0) {
      AppendProgramName(arguments[i], line);
    } else {
      line += ' ';
      AppendArgument(arguments[i], line);
    }
  }
  return line;
}

}  // namespace kestrun::platform
