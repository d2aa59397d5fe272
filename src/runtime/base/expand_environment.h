// Environment variables in a text.
//
// For users of the library; the program itself calls it nowhere.
#ifndef KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_
#define KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_

#include <string>

namespace kestrun {

// Replaces %NAME% by the environment's values; a reference to an undefined variable stays. A result of 4096
// characters or more gives the input unchanged.
std::string ExpandEnvironment(const std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_
