#include "runtime/base/version.h"

#include <vector>

#include "platform/win32.h"

namespace kestrun {

std::string VersionNumber::ToString() const {
  return std::to_string(majorNumber) + "." + std::to_string(minorNumber) + "." + std::to_string(build) + "." +
         std::to_string(revision);
}

bool GetFileVersion(const std::string& path, VersionNumber& version) {
  DWORD ignored = 0;
  // The system's contract: the size, the data, and then a query for the root block, which holds the numbers.
  const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
  if (size == 0) return false;
  std::vector<u8> block(size);
  if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data())) return false;
  void* root = nullptr;
  UINT length = 0;
  if (!VerQueryValueA(block.data(), "\\", &root, &length) || length < sizeof(VS_FIXEDFILEINFO)) return false;
  const auto* info = static_cast<const VS_FIXEDFILEINFO*>(root);
  const auto high = [](DWORD value) { return static_cast<u16>(value >> 16); };
  const auto low = [](DWORD value) { return static_cast<u16>(value & 0xFFFF); };
  version = VersionNumber(high(info->dwFileVersionMS), low(info->dwFileVersionMS), high(info->dwFileVersionLS),
                          low(info->dwFileVersionLS));
  return true;
}

}  // namespace kestrun
