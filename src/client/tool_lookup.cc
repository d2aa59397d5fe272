#include "client/tool_lookup.h"

#include "app/console.h"
#include "platform/host.h"
#include "runtime/base/text.h"
#include "runtime/files/executable_search.h"

namespace kestrun {

namespace {

// Looks the name up without a change of case.
bool FindExactly(const std::string& name, Path& tool) {
  constexpr const char* kEnding = ".exe";
  const std::string lowered = ToLower(name);
  const bool hasEnding = lowered.size() >= 4 && lowered.compare(lowered.size() - 4, 4, kEnding) == 0;
  std::string found;
  if (!FindFile(hasEnding ? name : Path(name).ToString() + kEnding, found)) return false;
  tool = GetFullPath(Path(found));
  return true;
}

}  // namespace

Path FindTool(const std::string& name) {
  std::string found;
  if (!FindExecutable(name, found)) {
    PrintError("Cannot locate executable for \"" + name + "\"");
    return {};
  }
  return Path(found).GetLongName();
}

Path FindTypedTool(const std::string& name) {
  const std::string lowered = ToLower(name);
  if (platform::kFileNamesIgnoreCase || name == lowered) return FindTool(lowered);
  Path tool;
  if (FindExactly(name, tool)) return tool.GetLongName();
  std::string found;
  // The typed name is looked up once more, because its folder may be right and only its last component in another case.
  const bool isFoundAsTyped = !FindExecutable(lowered, found) && FindExecutable(name, found);
  return FindTool(isFoundAsTyped ? name : lowered);
}

}  // namespace kestrun
