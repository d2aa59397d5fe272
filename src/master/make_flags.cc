#include "master/make_flags.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

namespace kestrun {

namespace {

// "3,4"; a make that does not pass its pipe on writes negative numbers.
bool NamesDescriptors(std::string_view value) {
  return value.find(',') != std::string_view::npos && value.find_first_not_of("-,0123456789") == std::string_view::npos;
}

bool IsJobserverPipe(std::string_view word) {
  for (const std::string_view option : {"--jobserver-auth=", "--jobserver-fds="}) {
    if (word.substr(0, option.size()) == option) return NamesDescriptors(word.substr(option.size()));
  }
  return false;
}

}  // namespace

std::string WithoutJobserverPipe(const std::string& makeFlags) {
  std::string result;
  for (std::size_t begin = 0; begin < makeFlags.size();) {
    const std::size_t end = std::min(makeFlags.find(' ', begin), makeFlags.size());
    const std::string_view word = std::string_view(makeFlags).substr(begin, end - begin);
    if (word == "--") return result.append(makeFlags, begin);
    // The blank goes with its word.
    const std::size_t next = std::min(end + 1, makeFlags.size());
    if (!IsJobserverPipe(word)) result.append(makeFlags, begin, next - begin);
    begin = next;
  }
  return result;
}

}  // namespace kestrun
