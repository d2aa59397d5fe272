// The environment is a global array without a lock of its own: setenv may move it while another thread reads. All
// accesses of this layer take one mutex. A direct call of getenv is only safe while no other thread sets variables.
#include "platform/linux/base/environment.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/api/process_api.h"

namespace kestrun::platform {
namespace {

std::mutex& EnvironmentMutex() {
  static std::mutex mutex;
  return mutex;
}

// Expands the reference that starts with the percent sign at `at`. A reference to a variable that is not set stays as
// it is, as on Windows.
void ExpandAt(const std::string& source, std::size_t& at, std::string& result) {
  const std::size_t end = source.find('%', at + 1);
  const std::string reference = source.substr(at, end == std::string::npos ? end : end + 1 - at);
  std::string value;
  const bool found = end != std::string::npos && FindVariable(source.substr(at + 1, end - at - 1).c_str(), value);
  result += found ? value : reference;
  at += reference.size();
}

}  // namespace

EnvironmentLock::EnvironmentLock() : lock_(EnvironmentMutex()) {}

std::vector<std::string> EnvironmentEntries() {
  const EnvironmentLock lock;
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) entries.emplace_back(*entry);
  return entries;
}

bool FindVariable(const char* name, std::string& value) {
  const EnvironmentLock lock;
  const char* const found = getenv(name);
  if (found == nullptr) return false;
  value = found;
  return true;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

DWORD GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size) {
  std::string value;
  if (!FindVariable(name, value)) {
    SetLastError(ERROR_ENVVAR_NOT_FOUND);
    return 0;
  }
  // An empty value gives 0, like a failure; only the last error tells them apart.
  SetLastError(ERROR_SUCCESS);
  if (value.size() >= size) return static_cast<DWORD>(value.size() + 1);
  std::memcpy(buffer, value.c_str(), value.size() + 1);
  return static_cast<DWORD>(value.size());
}

BOOL SetEnvironmentVariableA(LPCSTR name, LPCSTR value) {
  if (name == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const EnvironmentLock lock;
  const int result = value != nullptr ? setenv(name, value, 1) : unsetenv(name);
  if (result == 0) return TRUE;
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return FALSE;
}

LPSTR GetEnvironmentStrings() {
  std::string block;
  for (const std::string& entry : EnvironmentEntries()) block.append(entry.c_str(), entry.size() + 1);
  block += '\0';
  auto copy = std::make_unique<char[]>(block.size());
  std::memcpy(copy.get(), block.data(), block.size());
  return copy.release();
}

BOOL FreeEnvironmentStringsA(LPSTR block) {
  std::unique_ptr<char[]>(block).reset();
  return TRUE;
}

DWORD ExpandEnvironmentStringsA(LPCSTR source, LPSTR destination, DWORD size) {
  const std::string text = source;
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == '%') {
      ExpandAt(text, at, result);
    } else {
      result += text[at++];
    }
  }
  if (result.size() < size) std::memcpy(destination, result.c_str(), result.size() + 1);
  return static_cast<DWORD>(result.size() + 1);
}
