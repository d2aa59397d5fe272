// What the user reads. Each call is one write, flushed, so that lines of several threads stay whole.
#ifndef KESTRUN_APP_CONSOLE_H_
#define KESTRUN_APP_CONSOLE_H_

#include <string_view>

namespace kestrun {

// The bytes as they are, with nothing added. The first write that fails is reported on the standard error stream, and
// what would follow it on the same stream is dropped. Where the reader of a pipe has gone the process ends at once, as
// other programs do.
void WriteStandardOutput(std::string_view text);
void WriteStandardError(std::string_view text);

// True once one of the two above has failed: the process must not end with exit code 0.
bool HasLostOutput();

// "KESTRUN: error: " or "KESTRUN: warning: ", the text and a line end, on the standard error stream. A failure has no
// consequence.
void PrintError(std::string_view text);
void PrintWarning(std::string_view text);

// The error of a client that found no master, and below it how to start one. Not where the last error says that this
// process may open no more files: then it could not look.
void PrintNoMaster(const std::string& error);

}  // namespace kestrun

#endif  // KESTRUN_APP_CONSOLE_H_
