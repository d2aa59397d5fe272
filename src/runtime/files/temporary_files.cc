#include "runtime/files/temporary_files.h"

#include <atomic>

#include "platform/win32.h"
#include "runtime/base/exception.h"
#include "runtime/base/handle.h"
#include "runtime/base/types.h"

namespace kestrun {

std::string CreateTempFile(const std::string& suffix) {
  static std::atomic<u32> counter{0};
  constexpr int kAttempts = 100;
  const std::string ending = std::to_string(++counter) + suffix;
  const Path directory = GetTempDirectory();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const Path candidate = directory / ("plovr" + std::to_string(now.dwLowDateTime)).append(ending);
    // CREATE_NEW makes the test for the name and its taking one step.
    const UniqueFile file(
        CreateFileA(candidate.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_TEMPORARY, nullptr));
    if (file) return candidate.ToString();
    Sleep(10);  // so that the time in the name changes before the next attempt
  }
  throw PLV::Exception(ERROR_ALREADY_EXISTS, "Cannot create unique temp file name!");
}

Path GetTempDirectory() {
  char buffer[MAX_PATH] = {};
  const DWORD length = GetTempPathA(MAX_PATH, buffer);
  if (length == 0 || length >= MAX_PATH) throw PLV::Exception(GetLastError(), "Could not get temp path!");
  return Path(buffer);
}

}  // namespace kestrun
