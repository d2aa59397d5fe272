// Finds the program that CreateProcessA is to run, and checks that it can be run. CreateProcessA has to report such
// errors itself, but it has returned by the time at which the tool's process executes the file.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_PROGRAM_FILE_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_PROGRAM_FILE_H_

#include <string>
#include <vector>

#include "platform/api/base_api.h"

namespace kestrun::platform {

// The file for the first word of a command line. A name without a separator is looked for in this program's folder, in
// the current one and in those of PATH; any other name is taken as it is. If nothing is found, the result is the name
// itself.
std::string FindProgram(const std::string& name);

// ERROR_SUCCESS, or why this file can't be run.
DWORD CheckProgram(const std::string& path);

// ERROR_SUCCESS, or ERROR_FILENAME_EXCED_RANGE for more text than the system takes.
DWORD CheckArgumentSize(const std::vector<std::string>& arguments, const std::vector<std::string>& variables);

// The full name of this program's own file; empty if the system doesn't tell.
std::string OwnProgramFile();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_PROGRAM_FILE_H_
