#ifndef KESTRUN_CLIENT_SCRIPT_FILE_H_
#define KESTRUN_CLIENT_SCRIPT_FILE_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// Reads a job script until its end and not by its size, so that it may be a pipe; then this waits for the writer. A
// byte-order mark at the start is left out. False, with part of the text, if the script can't be read.
bool ReadScriptFile(const Path& path, std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_SCRIPT_FILE_H_
