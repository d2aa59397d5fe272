#include "client/annotations.h"

#include <algorithm>
#include <string_view>

namespace kestrun {

namespace {

void RemoveAll(std::string& text, std::string_view mark) {
  std::size_t found = text.find(mark);
  while (found != std::string::npos) {
    text.erase(found, mark.size());
    // The removal may have formed a new mark, which begins less than a mark's length before it.
    found = text.find(mark, found - std::min(found, mark.size() - 1));
  }
}

}  // namespace

std::string StripAnnotations(std::string text) {
  const std::size_t cut = text.find("$$C");
  if (cut != std::string::npos) text.resize(cut);
  RemoveAll(text, "$$I:");
  RemoveAll(text, "$$O:");
  return text;
}

}  // namespace kestrun
