// The line by which the program tells its version.
#ifndef KESTRUN_RUNTIME_FILES_VERSION_STRING_H_
#define KESTRUN_RUNTIME_FILES_VERSION_STRING_H_

#include <string>

namespace kestrun {

// What --version prints: kestrun (release) 1.2.3.4 "C:\x\kestrun.exe". "<error>" if the program has no version.
std::string GetVersionString();

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_VERSION_STRING_H_
