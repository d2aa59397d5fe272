#include "platform/linux/files/file_names.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <vector>

namespace kestrun::platform {

std::string SystemName(std::string_view name) {
  std::string mapped(name);
  std::replace(mapped.begin(), mapped.end(), '\\', '/');
  return mapped;
}

// ".." removes the component before it as text, as on Windows; a symbolic link there is not followed.
std::string LexicalFullPath(const std::string& name, const std::string& currentDirectory) {
  if (name.empty()) return name;
  const std::string whole = name.front() == '/' ? name : currentDirectory + "/" + name;
  std::vector<std::string_view> kept;
  std::string_view rest = whole;
  std::string_view last;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    last = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (last == "..") {
      if (!kept.empty()) kept.pop_back();
    } else if (!last.empty() && last != ".") {
      kept.push_back(last);
    }
  }
  std::string result;
  for (std::string_view component : kept) result.append("/").append(component);
  if (result.empty() || whole.back() == '/') result += '/';
  return result;
}

bool MatchesPattern(std::string_view name, std::string_view pattern) {
  if (pattern == "*.*") return true;
  // Greedy matching with one point to return to: the last star, and how much of the name it has matched. Earlier stars
  // need no other point, because any match that they allow is also found from the last one.
  std::size_t n = 0, p = 0, starEnd = std::string_view::npos, taken = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starEnd = ++p;
      taken = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (starEnd != std::string_view::npos) {
      p = starEnd;
      n = ++taken;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool EndsInExe(std::string_view name) {
  return name.size() > 4 && strncasecmp(name.data() + name.size() - 4, ".exe", 4) == 0;
}

std::string CurrentDirectory() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof buffer) ? buffer : "";
}

std::string NameOnDisk(const std::string& name) {
  struct stat info;
  if (!EndsInExe(name) || stat(name.c_str(), &info) == 0) return name;
  const std::string stripped = name.substr(0, name.size() - 4);
  // "/.exe" has no name left without its ending.
  if (stripped.back() == '/' || stat(stripped.c_str(), &info) != 0) return name;
  return S_ISREG(info.st_mode) && access(stripped.c_str(), X_OK) == 0 ? stripped : name;
}

}  // namespace kestrun::platform
