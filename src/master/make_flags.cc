#include "master/make_flags.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace kestrun {

namespace {

// True for "3,4", and for the negative numbers that a make writes if it does not pass its pipe on.
bool NamesDescriptors(std::string_view value) {
  return value.find(',') != std::string_view::npos && value.find_first_not_of("-,0123456789") == std::string_view::npos;
}

bool IsJobserverPipe(std::string_view word) {
  for (const std::string_view option : {"--jobserver-auth=", "--jobserver-fds="}) {
    if (word.substr(0, option.size()) == option) return NamesDescriptors(word.substr(option.size()));
  }
  return false;
}

// True for "-j" and "-j4".
bool IsJobCount(std::string_view word) {
  return word.substr(0, 2) == "-j" && word.find_first_not_of("0123456789", 2) == std::string_view::npos;
}

// Splits the text into words, each with the blank that follows it. "--" and everything after it is the last word.
std::vector<std::string_view> SplitFlags(std::string_view flags) {
  std::vector<std::string_view> words;
  for (std::size_t begin = 0; begin < flags.size();) {
    const std::size_t end = std::min(flags.find(' ', begin), flags.size());
    const bool isLast = flags.substr(begin, end - begin) == "--";
    const std::size_t next = isLast ? flags.size() : std::min(end + 1, flags.size());
    words.push_back(flags.substr(begin, next - begin));
    begin = next;
  }
  return words;
}

std::string_view WithoutBlank(std::string_view word) {
  return word.substr(0, word.find(' '));
}

}  // namespace

std::string WithoutJobserverPipe(const std::string& makeFlags) {
  const std::vector<std::string_view> words = SplitFlags(makeFlags);
  const auto isPipe = [](std::string_view word) { return IsJobserverPipe(WithoutBlank(word)); };
  if (std::none_of(words.begin(), words.end(), isPipe)) return makeFlags;
  std::string result;
  for (const std::string_view word : words) {
    if (!isPipe(word) && !IsJobCount(WithoutBlank(word))) result.append(word);
  }
  return result;
}

}  // namespace kestrun
