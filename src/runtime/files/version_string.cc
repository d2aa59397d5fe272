#include "runtime/files/version_string.h"

#include "runtime/files/executable_search.h"
#include "runtime/files/path.h"

namespace kestrun {

VersionNumber GetProgramVersion() {
  VersionNumber version;
  GetFileVersion(GetProgramPath().ToString(), version);
  return version;
}

std::string GetVersionString() {
  const Path program = GetProgramPath();
  VersionNumber version;
  if (!GetFileVersion(program.ToString(), version)) return "<error>";
  return program.GetBaseName() + " (release) " + version.ToString() + " " + program.GetQuoted('\\');
}

}  // namespace kestrun
