#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "platform/host.h"
#include "platform/linux/files/file_names.h"

namespace kestrun::platform {

namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool IsExecutableFile(const std::string& name) {
  struct stat info;
  return stat(name.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(name.c_str(), X_OK) == 0;
}

}  // namespace

bool FindExecutableIgnoringCase(const std::string& candidate, std::string& found) {
  const std::string name = SystemName(candidate);
  const std::size_t leafAt = name.rfind('/') + 1;
  const std::string folder = name.substr(0, leafAt);
  const std::string_view leaf = std::string_view(name).substr(leafAt);
  const std::string_view stripped = EndsInExe(leaf) ? leaf.substr(0, leaf.size() - 4) : leaf;
  if (leaf.empty()) return false;
  std::unique_ptr<DIR, DirectoryCloser> directory(opendir(folder.empty() ? "." : folder.c_str()));
  if (!directory) return false;
  // One pass finds both forms; a file with the whole name takes precedence over one with the stripped name.
  std::string whole, bare;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string_view entryName = entry->d_name;
    std::string* best = EqualIgnoringCase(entryName, leaf) ? &whole : &bare;
    if (best == &bare && !EqualIgnoringCase(entryName, stripped)) continue;
    if ((best->empty() || entryName < *best) && IsExecutableFile(folder + entry->d_name)) *best = entryName;
  }
  if (whole.empty() && bare.empty()) return false;
  found = folder + (whole.empty() ? bare : whole);
  return true;
}

}  // namespace kestrun::platform
