// The search for a program along PATH, as shells do it. Needs nothing of the C library.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_SEARCH_PATH_H_
#define KESTRUN_PLATFORM_LINUX_BASE_SEARCH_PATH_H_

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace kestrun::platform {

// Where shells look without a PATH.
inline constexpr std::string_view kDefaultSearchPath = "/usr/local/bin:/usr/bin:/bin";

// The folders of a PATH, in order.
class SearchPath {
 public:
  explicit constexpr SearchPath(std::string_view path) : rest_(path) {}

  // False behind the last one.
  constexpr bool Next(std::string_view& folder) {
    if (isAtEnd_) return false;
    std::size_t size = 0;
    while (size < rest_.size() && rest_[size] != ':') ++size;
    // An empty element is the current folder.
    folder = size == 0 ? std::string_view(".", 1) : std::string_view(rest_.data(), size);
    isAtEnd_ = size == rest_.size();
    if (!isAtEnd_) rest_.remove_prefix(size + 1);
    return true;
  }

 private:
  std::string_view rest_;
  bool isAtEnd_ = false;
};

inline bool IsMissing(int error) {
  return error == ENOENT || error == ENOTDIR;
}

// Whether the search goes on in the next folder, after execve has failed with this error. A file that may not be run
// does not end it.
inline bool IsNextTried(int error) {
  return IsMissing(error) || error == EACCES;
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_SEARCH_PATH_H_
