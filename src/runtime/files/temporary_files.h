// Files with names of their own in the system's folder for temporary files.
//
// For users of the library; the program itself makes none. Any thread may call it.
#ifndef KESTRUN_RUNTIME_FILES_TEMPORARY_FILES_H_
#define KESTRUN_RUNTIME_FILES_TEMPORARY_FILES_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// Makes an empty file with a new name that ends in `suffix` in the folder for temporary files, and gives its full
// name. The file is the caller's to delete. Throws PLV::Exception after 100 names that were all taken.
std::string CreateTempFile(const std::string& suffix);

// The system's folder for temporary files. Throws PLV::Exception if there is none.
Path GetTempDirectory();

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_TEMPORARY_FILES_H_
