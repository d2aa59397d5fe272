// Small services around the process and its files: well-known folders, the version line, temporary files, whole
// files as text. Failures are results unless a comment names an exception.
#ifndef KESTRUN_RUNTIME_SYSTEM_UTILITIES_H_
#define KESTRUN_RUNTIME_SYSTEM_UTILITIES_H_

#include <string>

#include "runtime/path.h"
#include "runtime/types.h"

namespace kestrun {

// The folder of the settings file and, in "Log" below it, of the logs: RV_COMMON_PATH or the system's default, with
// "DORN\" behind it. The folder may not exist.
Path GetCommonPath();

// What --version prints: kestrun (release) 1.2.3.4 "C:\x\kestrun.exe". "<error>" if the program has no version.
std::string GetVersionString();

// Makes an empty file with a new name that ends in `suffix` in the folder for temporary files, and gives its full
// name. The file is the caller's to delete. Throws PLV::Exception after 100 names that were all taken.
std::string CreateTempFile(const std::string& suffix);

// The system's folder for temporary files. Throws PLV::Exception if there is none.
Path GetTempDirectory();

// Deletes a folder with everything in it. Goes on after a failure, to delete as much as possible; true only if
// nothing is left.
bool DeleteTree(const Path& directory);

// Replaces %NAME% by the environment's values; a reference to an undefined variable stays. A result of 4096
// characters or more gives the input unchanged.
std::string ExpandEnvironment(const std::string& text);

// Reads a whole file. `text` and `size` may be null; `size` is in bytes. On failure false, with the reason in
// `*error`.
bool ReadTextFile(const Path& path, std::string* text, u32* size, std::string* error);

// Reports a broken assumption on the standard error stream; does not stop the program.
void AssertFailed(const std::string& expression, const std::string& file, int line);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_SYSTEM_UTILITIES_H_
