// Command lines as Windows programs know them: one text, split into arguments by the rules of the C run-time.
//
// Blanks and tabs separate arguments; a double quote starts or ends a part in which they don't. In front of a double
// quote two backslashes stand for one, and an odd one makes the quote part of the argument; anywhere else a backslash
// is itself. Within quotes, a doubled double quote is a double quote. The first word, the program's name, knows no
// backslash rule: a double quote only starts or ends the quoted part.
//
// Split(Join(v)) gives v for every list of arguments, empty ones included, whose first has no double quote in it. All
// functions are pure.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_COMMAND_LINE_H_
#define KESTRUN_PLATFORM_LINUX_BASE_COMMAND_LINE_H_

#include <string>
#include <string_view>
#include <vector>

namespace kestrun::platform {

std::vector<std::string> SplitCommandLine(std::string_view commandLine);

// A double quote in the program's name can't be written down, and is left out.
std::string JoinCommandLine(const std::vector<std::string>& arguments);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_COMMAND_LINE_H_
