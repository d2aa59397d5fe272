#include "runtime/files/version_string.h"

#include "runtime/base/version.h"
#include "runtime/files/executable_search.h"
#include "runtime/files/path.h"

namespace kestrun {

std::string GetVersionString() {
  const Path program = GetProgramPath();
  VersionNumber version;
  if (!GetFileVersion(program.ToString(), version)) return "<error>";
  return program.GetBaseName() + " (release) " + version.ToString() + " " + program.GetQuoted('\\');
}

}  // namespace kestrun
