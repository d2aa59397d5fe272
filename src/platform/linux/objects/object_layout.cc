#include "platform/linux/objects/object_layout.h"

namespace kestrun::platform {

namespace {

std::string Hex(std::uint64_t value) {
  std::string text;
  do {
    text.insert(text.begin(), "0123456789abcdef"[value & 15]);
  } while ((value >>= 4) != 0);
  return text;
}

}  // namespace

std::string TableFileName() {
  return ".table-" + Hex(sizeof(ObjectLayout)) + "-" + std::to_string(kObjectLayoutVersion);
}

std::string DataFileName(std::uint64_t serial, unsigned slot) {
  return ".data-" + Hex(serial) + "-" + std::to_string(slot);
}

// FNV-1a, written out here because all processes must agree on it: std::hash may differ between libraries.
unsigned BucketOf(std::string_view name) {
  std::uint64_t hash = 14695981039346656037u;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  return static_cast<unsigned>((hash ^ hash >> 32) % kObjectBuckets);
}

}  // namespace kestrun::platform
