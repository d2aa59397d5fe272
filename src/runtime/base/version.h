// The four-part version number that a program file carries: in a resource on Windows, in an ELF note on Linux.
//
// Plain values; any thread may call GetFileVersion, which reads the file each time.
#ifndef KESTRUN_RUNTIME_BASE_VERSION_H_
#define KESTRUN_RUNTIME_BASE_VERSION_H_

#include <string>

#include "runtime/base/types.h"

namespace kestrun {

struct VersionNumber {
  constexpr VersionNumber() = default;
  constexpr VersionNumber(u16 majorPart, u16 minorPart, u16 buildPart, u16 revisionPart)
      : majorNumber(majorPart), minorNumber(minorPart), build(buildPart), revision(revisionPart) {}

  // "1.2.3.4".
  std::string ToString() const;

  friend bool operator==(const VersionNumber&, const VersionNumber&) = default;

  u16 majorNumber = 0;
  u16 minorNumber = 0;
  u16 build = 0;
  u16 revision = 0;
};

// Reads the version resource of a program file. False, with `version` unchanged, for a file that has none.
bool GetFileVersion(const std::string& path, VersionNumber& version);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_VERSION_H_
