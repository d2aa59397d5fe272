// Environments as maps, and the flat block of strings in which the system takes and gives them.
//
// A block is a row of "key=value" strings, each with a NUL behind it, and one more NUL at its end. Keys keep their
// case and are compared byte by byte; text is in the system's code page.
#ifndef KESTRUN_RUNTIME_BASE_ENVIRONMENT_H_
#define KESTRUN_RUNTIME_BASE_ENVIRONMENT_H_

#include <map>
#include <memory>
#include <string>

namespace kestrun {

using Environment = std::map<std::string, std::string>;

// The environment of this process. The system's entries that begin with "=" share the empty key; the last one wins.
Environment GetEnvironment();

// One variable of this process, of any length; false, with `value` unchanged, if it is not set or empty.
bool GetEnvironmentValue(const std::string& name, std::string& value);

// The block of the map's entries in key order.
std::unique_ptr<char[]> BuildEnvironmentBlock(const Environment& environment);

// Adds the block's entries to the map; a later entry replaces an earlier one of the same key. An entry without "=" is
// skipped.
void ParseEnvironmentBlock(const char* block, Environment& environment);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_ENVIRONMENT_H_
