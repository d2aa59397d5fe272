#include "master/format_elapsed.h"

#include <iomanip>
#include <sstream>

namespace kestrun {

std::string FormatElapsed(u32 ms) {
  constexpr u32 kSecond = 1000;
  constexpr u32 kTenSeconds = 10000;
  std::ostringstream text;
  if (ms < kSecond) {
    text << ms << "ms";
  } else if (ms < kTenSeconds) {
    text << static_cast<float>(ms / 1000.0) << "s";
  } else {
    const u32 seconds = ms / kSecond;
    text << std::setfill('0') << std::setw(2) << seconds / 60 << ":" << std::setw(2) << seconds % 60;
  }
  return text.str();
}

}  // namespace kestrun
