// Thrown by the Reactor: by Register, if no port is left for the wake-up pair.
//
// The code is the system's error number.
#ifndef KESTRUN_RUNTIME_THREADS_REACTOR_EXCEPTION_H_
#define KESTRUN_RUNTIME_THREADS_REACTOR_EXCEPTION_H_

#include <string>

#include "runtime/base/exception.h"
#include "runtime/base/types.h"

namespace kestrun {

class ReactorException : public SystemException {
 public:
  ReactorException(i32 code, const std::string& message) : SystemException(code, message, "ReactorException") {}
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_REACTOR_EXCEPTION_H_
