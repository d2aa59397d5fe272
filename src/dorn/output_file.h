// Files that the user names for dorn's own output: records, traces and pages.
//
// Any thread may call this function.
#ifndef KESTRUN_DORN_OUTPUT_FILE_H_
#define KESTRUN_DORN_OUTPUT_FILE_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun::dorn {

// Writes the text into the file, as a compiler writes the file of its "-o": a symbolic link is followed, a device or a
// pipe takes the text itself, and a new file gets the access that the user's other new files get. The file is not
// replaced by another, since a user may name a device. False, with name and cause in `error`, if it can't be written;
// the file may be incomplete then.
bool WriteOutputFile(const Path& file, const std::string& text, std::string& error);

// False, with name and cause in `error`, if the file can't be opened for writing. It is made if it is not there, and
// one that is there keeps its text. A pipe is not opened, since that could wait for its reader.
bool CanWriteOutputFile(const Path& file, std::string& error);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_OUTPUT_FILE_H_
