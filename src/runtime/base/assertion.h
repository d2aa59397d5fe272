// The report of a broken assumption.
//
// For users of the library; the program itself calls it nowhere.
#ifndef KESTRUN_RUNTIME_BASE_ASSERTION_H_
#define KESTRUN_RUNTIME_BASE_ASSERTION_H_

#include <string>

namespace kestrun {

// Writes a line to the standard error stream; does not stop the program.
void AssertFailed(const std::string& expression, const std::string& file, int line);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_ASSERTION_H_
