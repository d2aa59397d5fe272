#include "platform/host.h"

namespace kestrun::platform {

bool FindExecutableIgnoringCase(const std::string&, std::string&) {
  return false;
}

}  // namespace kestrun::platform
