// What the user reads. Each call is one write, flushed, so that lines of several threads stay whole.
#ifndef KESTRUN_STUBS_CONSOLE_H_
#define KESTRUN_STUBS_CONSOLE_H_

#include <string_view>

namespace kestrun {

// The bytes as they are, with nothing added.
void WriteStandardOutput(std::string_view text);
void WriteStandardError(std::string_view text);

// "KESTRUN: error: " or "KESTRUN: warning: ", the text and a line end, on the standard error stream.
void PrintError(std::string_view text);
void PrintWarning(std::string_view text);

}  // namespace kestrun

#endif  // KESTRUN_STUBS_CONSOLE_H_
