#include "dorn/program_search.h"

#include <vector>

#include "platform/host.h"
#include "runtime/base/environment.h"
#include "runtime/base/text.h"
#include "runtime/files/executable_search.h"

namespace kestrun::dorn {

namespace {

std::vector<Path> ListCandidates(const std::string& name) {
  // A name that has a folder in it is used as it is; only others are looked up in PATH.
  if (name.find_first_of("/\\") != std::string::npos) return {Path(name)};
  std::vector<Path> candidates;
  std::string searchPath;
  GetEnvironmentValue("PATH", searchPath);
  for (const std::string& element : Split(searchPath, platform::kPathListSeparator)) {
    candidates.push_back(Path(element) / name);
  }
  return candidates;
}

bool IsFile(const Path& path) {
  return path.Exists() && !path.IsDirectory();
}

// Executables before what only bears the name, like a batch file or a script.
Path FirstFile(const std::vector<Path>& candidates) {
  for (const Path& candidate : candidates) {
    const Path executable(candidate.ToString() + ".exe");
    if (IsFile(executable)) return GetFullPath(executable).GetLongName();
  }
  for (const Path& candidate : candidates) {
    if (IsFile(candidate)) return GetFullPath(candidate).GetLongName();
  }
  return Path();
}

}  // namespace

Path FindBuildCommand(const std::string& name) {
  return FirstFile(ListCandidates(name));
}

Path FindKestrun() {
  const Path beside = FirstFile({GetProgramPath().GetDirectory() / "kestrun"});
  return beside.IsEmpty() ? FindBuildCommand("kestrun") : beside;
}

}  // namespace kestrun::dorn
