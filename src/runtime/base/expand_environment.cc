#include "runtime/base/expand_environment.h"

#include "platform/win32.h"

namespace kestrun {

std::string ExpandEnvironment(const std::string& text) {
  // A fixed size, which is the documented limit of this function.
  char buffer[4096];
  const DWORD length = ExpandEnvironmentStringsA(text.c_str(), buffer, sizeof buffer);
  return length == 0 || length > sizeof buffer ? text : std::string(buffer);
}

}  // namespace kestrun
