#include "runtime/files/ini_format_exception.h"

#include <cstring>

namespace kestrun {

IniFormatException::IniFormatException(u32 lineNumber, const char* message) : lineNumber_(lineNumber), message_() {
  std::strncpy(message_, message, sizeof message_ - 1);
}

}  // namespace kestrun
