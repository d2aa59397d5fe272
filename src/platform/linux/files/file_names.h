// Names as the program uses them, made into names of this system.
//
// Every call of the layer that takes a name passes it through SystemName. Pure text functions first, then those that
// read the disk. All may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_FILES_FILE_NAMES_H_
#define KESTRUN_PLATFORM_LINUX_FILES_FILE_NAMES_H_

#include <string>
#include <string_view>

namespace kestrun::platform {

// `name` with "/" for every "\".
std::string SystemName(std::string_view name);

// `name` (in system form) made absolute as text: behind `currentDirectory` unless rooted, "." and "..", doubled
// separators removed. A separator at the end stays. "" stays "".
std::string LexicalFullPath(const std::string& name, const std::string& currentDirectory);

// Whether `name` fits a pattern with "*" (any run) and "?" (any one byte). "*.*" fits everything.
bool MatchesPattern(std::string_view name, std::string_view pattern);

bool EndsInExe(std::string_view name);

// The current directory; "" when it is gone.
std::string CurrentDirectory();

// The file that `name` (in system form) means: the name itself where such a file exists, or the name without ".exe"
// where that is a file that may be executed. Otherwise the name unchanged, and the caller's own call fails on it.
std::string NameOnDisk(const std::string& name);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_FILES_FILE_NAMES_H_
