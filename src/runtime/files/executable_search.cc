#include "runtime/files/executable_search.h"

#include <functional>
#include <vector>

#include "platform/host.h"
#include "runtime/base/environment.h"
#include "runtime/base/text.h"

namespace kestrun {

namespace {

// The files that `name` may mean, in the order in which they are tried.
std::vector<Path> ListCandidates(const Path& name) {
  std::vector<Path> candidates;
  if (name.IsAbsolute()) candidates.push_back(name);
  candidates.push_back(GetProgramPath().GetDirectory() / name);
  candidates.push_back(GetCurrentDirectory() / name);
  std::string searchPath;
  if (GetEnvironmentValue("PATH", searchPath)) {
    for (const std::string& element : Split(searchPath, platform::kPathListSeparator)) {
      candidates.push_back(Path(element) / name);
    }
  }
  return candidates;
}

bool EndsInExe(const std::string& name) {
  return name.size() >= 4 && _stricmp(name.c_str() + name.size() - 4, ".exe") == 0;
}

}  // namespace

bool FindFile(const std::string& name, std::string& found) {
  for (const Path& candidate : ListCandidates(name)) {
    if (candidate.Exists()) {
      found = candidate.ToString();
      return true;
    }
  }
  return false;
}

bool FindExecutable(const std::string& name, std::string& fullPath) {
  std::string wanted = Path(name).ToString();
  if (!EndsInExe(wanted)) wanted += ".exe";
  std::string found;
  if (!FindFile(wanted, found)) {
    // Expensive where it does anything at all (it reads directories), so it runs only after all exact names have
    // failed.
    bool isFound = false;
    for (const Path& candidate : ListCandidates(wanted)) {
      isFound = platform::FindExecutableIgnoringCase(candidate.ToString(), found);
      if (isFound) break;
    }
    if (!isFound) return false;
  }
  char buffer[MAX_PATH] = {};
  const DWORD length = GetFullPathNameA(found.c_str(), MAX_PATH, buffer, nullptr);
  if (length == 0 || length >= MAX_PATH) return false;
  fullPath = buffer;
  return true;
}

Path GetProgramPath() {
  char buffer[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
  // A name that does not fit is cut off by some systems, and left without its NUL by others; it is of no use in either
  // case.
  return length == 0 || length >= MAX_PATH ? Path() : Path(buffer);
}

}  // namespace kestrun
