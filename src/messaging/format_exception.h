// Thrown for bytes that can't be a message, and for a use that a segment does not allow.
//
// The peer's fault, in most cases: the Reactor closes the channel on which it came out of HandleEvent.
#ifndef KESTRUN_MESSAGING_FORMAT_EXCEPTION_H_
#define KESTRUN_MESSAGING_FORMAT_EXCEPTION_H_

#include <string>

#include "runtime/base/exception.h"
#include "runtime/base/types.h"

namespace kestrun {

class FormatException : public SystemException {
 public:
  explicit FormatException(const std::string& message) : SystemException(message, "FormatException") {}
  FormatException(i32 code, const std::string& message) : SystemException(code, message, "FormatException") {}
};

}  // namespace kestrun

#endif  // KESTRUN_MESSAGING_FORMAT_EXCEPTION_H_
