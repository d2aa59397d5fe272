#include "platform/linux/sockets/local_names.h"

#include <cstdint>
#include <cstdio>

#include "platform/api/base_api.h"
#include "platform/linux/objects/object_folder.h"

namespace kestrun::platform {

namespace {

// FNV-1a, written out here because server and client must agree on it: std::hash may differ between libraries.
std::uint64_t Hash(const std::string& text) {
  std::uint64_t hash = 14695981039346656037u;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  return hash;
}

std::string FileName(const std::string& name) {
  // "." for a name in clear and "," for a hash, so that the two can't be equal.
  if (IsPlainStreamName(name)) return std::string(kPlainStreamPrefix) + name;
  char text[24];
  std::snprintf(text, sizeof text, "stream,%016llx", static_cast<unsigned long long>(Hash(name)));
  return text;
}

}  // namespace

LocalName::LocalName(const std::string& name, const std::string& suffix) {
  const std::string folder = ObjectFolderPath();
  if (folder.empty()) return;
  path_ = folder + "/" + FileName(name) + suffix;
  // A path that is too long for an address is reached through the descriptor of the folder in /proc.
  std::string address = path_;
  if (address.size() >= sizeof address_.sun_path) {
    address = "/proc/self/fd/" + std::to_string(ObjectFolderDescriptor()) + "/" + FileName(name) + suffix;
  }
  address_.sun_family = AF_UNIX;
  address.copy(address_.sun_path, sizeof address_.sun_path - 1);
}

}  // namespace kestrun::platform
