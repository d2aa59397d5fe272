// The version of this program, and the line that --version prints.
//
// Both read the program's own file. Any thread may call them.
#ifndef KESTRUN_RUNTIME_FILES_VERSION_STRING_H_
#define KESTRUN_RUNTIME_FILES_VERSION_STRING_H_

#include <string>

#include "runtime/base/version.h"

namespace kestrun {

// The version of this program; 0.0.0.0 for one that has none.
VersionNumber GetProgramVersion();

// The line that --version prints: kestrun (release) 1.2.3.4 "C:\x\kestrun.exe". "<error>" if the program has no
// version.
std::string GetVersionString();

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_VERSION_STRING_H_
