#ifndef KESTRUN_CLIENT_SCRIPT_FILE_H_
#define KESTRUN_CLIENT_SCRIPT_FILE_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// Reads a job script to its end, so that it may be a pipe as well as a file; a pipe is waited for. A byte-order mark at
// its start is left out. False, with part of the text, if it can't be read.
bool ReadScriptFile(const Path& path, std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_SCRIPT_FILE_H_
