// The addresses of local stream sockets: files in the folder of the named objects.
//
// A LocalName is a value for one thread. It makes no file, but the folder is made if it does not exist.
#ifndef KESTRUN_PLATFORM_LINUX_SOCKETS_LOCAL_NAMES_H_
#define KESTRUN_PLATFORM_LINUX_SOCKETS_LOCAL_NAMES_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace kestrun::platform {

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
