#include "platform/host.h"

namespace kestrun::platform {

// The system's own lookups ignore case.
bool FindExecutableIgnoringCase(const std::string&, std::string&) {
  return false;
}

}  // namespace kestrun::platform
