#include "master/format_elapsed.h"

#include <cstdio>

namespace kestrun {

std::string FormatElapsed(u32 ms) {
  constexpr u32 kSecond = 1000;
  constexpr u32 kTenSeconds = 10000;
  char text[32];
  if (ms < kSecond) {
    std::snprintf(text, sizeof text, "%ums", ms);
  } else if (ms < kTenSeconds) {
    std::snprintf(text, sizeof text, "%gs", ms / 1000.0);
  } else {
    const u32 seconds = ms / kSecond;
    std::snprintf(text, sizeof text, "%02u:%02u", seconds / 60, seconds % 60);
  }
  return text;
}

}  // namespace kestrun
