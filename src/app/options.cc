#include "app/options.h"

#include <algorithm>

namespace kestrun {

const std::string kDefaultMarker = "$";

void ReplaceMarker(std::string& text, const std::string& marker) {
  if (marker.empty() || marker == kDefaultMarker) return;
  std::size_t found = text.find(marker);
  while (found != std::string::npos) {
    text.replace(found, marker.size(), kDefaultMarker);
    // No marker was before this one, so a new one that the replacement forms begins less than a marker's length before
    // it.
    found = text.find(marker, found - std::min(found, marker.size() - 1));
  }
}

}  // namespace kestrun
