#include "runtime/base/exception.h"

#include <algorithm>

namespace kestrun {

namespace {

// Copies as much of the text as fits, and a terminating null. Exceptions hold no std::string, whose copy may throw
// while an exception is under way.
template <size_t Size>
void CopyCut(const std::string& text, char (&target)[Size]) {
  size_t length = std::min(text.size(), Size - 1);
  text.copy(target, length);
  target[length] = '\0';
}

}  // namespace

SystemException::SystemException(const std::string& message, const std::string& typeName)
    : SystemException(kNoCode, message, typeName) {}

SystemException::SystemException(i32 code, const std::string& message, const std::string& typeName) : code_(code) {
  CopyCut(message, message_);
  CopyCut(typeName, typeName_);
}

SystemException::~SystemException() = default;

}  // namespace kestrun
