#include "stubs/tool_lookup.h"

#include "runtime/executable_search.h"
#include "stubs/console.h"

namespace kestrun {

Path FindTool(const std::string& name) {
  std::string found;
  if (!FindExecutable(name, found)) {
    PrintError("Cannot locate executable for \"" + name + "\"");
    return {};
  }
  return Path(found).GetLongName();
}

}  // namespace kestrun
