// Writing to the user. Each call is one write, flushed, so that lines of several threads stay whole.
#ifndef KESTRUN_APP_CONSOLE_H_
#define KESTRUN_APP_CONSOLE_H_

#include <string_view>

namespace kestrun {

// Write the bytes as they are. The first write that fails is reported on the standard error stream, and everything
// after it on the same stream is dropped. If the reader of a pipe has gone the process ends at once, as other programs
// do.
void WriteStandardOutput(std::string_view text);
void WriteStandardError(std::string_view text);

// True once one of the two above has failed: the process must not end with exit code 0.
bool HasLostOutput();

// "KESTRUN: error: " or "KESTRUN: warning: ", the text and a line end, on the standard error stream. A failure has no
// consequence.
void PrintError(std::string_view text);
void PrintWarning(std::string_view text);

// Prints the error of a client that found no master, and below it how to start one. The second line is left out if the
// last error says that this process may open no more files, since it could not look for a master then.
void PrintNoMaster(const std::string& error);

}  // namespace kestrun

#endif  // KESTRUN_APP_CONSOLE_H_
