// The addresses of local stream sockets: files in the folder of the named objects.
//
// A LocalName is a value for one thread. It makes no file, but the folder is made if it does not exist.
#ifndef KESTRUN_PLATFORM_LINUX_SOCKETS_LOCAL_NAMES_H_
#define KESTRUN_PLATFORM_LINUX_SOCKETS_LOCAL_NAMES_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrun::platform {

// A plain name stands behind this in its file's name; any other one by its hash.
inline constexpr std::string_view kPlainStreamPrefix = "stream.";

constexpr bool IsPlainStreamName(std::string_view name) {
  // Leaves room for a folder's path in the 107 bytes of an address.
  constexpr std::size_t kLongestName = 64;
  for (const char c : name) {
    const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!isLetter && (c < '0' || c > '9') && c != '_' && c != '-' && c != '.') return false;
  }
  return name.size() <= kLongestName;
}

// The address of the socket file of one name (the folder: object_folder.h).
class LocalName {
 public:
  // With `suffix` behind the file's name, for a file that is to be renamed later.
  explicit LocalName(const std::string& name, const std::string& suffix = "");

  // False without a folder, or if its path is too long for an address; the last error tells.
  bool IsValid() const { return !path_.empty(); }
  const std::string& Path() const { return path_; }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t Size() const { return sizeof address_; }

 private:
  std::string path_;
  sockaddr_un address_ = {};
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_SOCKETS_LOCAL_NAMES_H_
