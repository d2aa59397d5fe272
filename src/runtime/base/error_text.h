// The system's texts for its error numbers.
//
// For users of the library; the program itself reports numbers. Any thread may call it.
#ifndef KESTRUN_RUNTIME_BASE_ERROR_TEXT_H_
#define KESTRUN_RUNTIME_BASE_ERROR_TEXT_H_

#include <string>

#include "runtime/base/types.h"

namespace kestrun {

// The text as the system gives it, with its line end; empty for a number that the system does not know.
std::string GetErrorText(u32 errorCode);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_ERROR_TEXT_H_
