#include "app/options.h"

#include <algorithm>

namespace kestrun {

const std::string kDefaultMarker = "$";

void ReplaceMarker(std::string& text, const std::string& marker) {
  if (marker.empty() || marker == kDefaultMarker) return;
  std::size_t found = text.find(marker);
  while (found != std::string::npos) {
    text.replace(found, marker.size(), kDefaultMarker);
    // There was no marker before this one, so the next can begin at most a marker's length before its place.
    found = text.find(marker, found - std::min(found, marker.size() - 1));
  }
}

}  // namespace kestrun
