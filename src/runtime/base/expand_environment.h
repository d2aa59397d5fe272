// Environment variables in a text.
//
// Offered to users of the library; the program itself expands none.
#ifndef KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_
#define KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_

#include <string>

namespace kestrun {

// Replaces %NAME% by the environment's values; a reference to an undefined variable stays. A result of 4096
// characters or more gives the input unchanged.
std::string ExpandEnvironment(const std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_EXPAND_ENVIRONMENT_H_
