// Where a command's program file is: the search along this program's folder, the current one and PATH.
#ifndef KESTRUN_RUNTIME_FILES_EXECUTABLE_SEARCH_H_
#define KESTRUN_RUNTIME_FILES_EXECUTABLE_SEARCH_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun {

// Finds an executable by its name and gives its full path. ".exe" is added to a name that does not end in it (in any
// case), even behind another ending. False, with `fullPath` unchanged, if nothing is found.
bool FindExecutable(const std::string& name, std::string& fullPath);

// Looks for a file or folder of this name and gives the first that exists: the name itself if it is absolute, then
// the program's folder, the current folder, and the elements of PATH from left to right. Quotes around the name or
// an element of PATH are dropped; an empty element stands for the name alone.
bool FindFile(const std::string& name, std::string& found);

// The file of the running program. Empty if the system does not tell.
Path GetProgramPath();

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_EXECUTABLE_SEARCH_H_
