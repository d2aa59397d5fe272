// What the user reads. Each call is one write, flushed, so that lines of several threads stay whole.
#ifndef KESTRUN_STUBS_CONSOLE_H_
#define KESTRUN_STUBS_CONSOLE_H_

#include <string>

namespace kestrun {

// The bytes as they are, with nothing added.
void WriteStandardOutput(const std::string& text);
void WriteStandardError(const std::string& text);

// "KESTRUN: error: " or "KESTRUN: warning: ", the text and a line end, on the standard error stream.
void PrintError(const std::string& text);
void PrintWarning(const std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_STUBS_CONSOLE_H_
