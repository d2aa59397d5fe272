#include "runtime/base/environment.h"

#include <algorithm>
#include <cstring>

#include "platform/win32.h"

namespace kestrun {

Environment GetEnvironment() {
  Environment environment;
  char* block = GetEnvironmentStrings();
  if (block == nullptr) return environment;
  ParseEnvironmentBlock(block, environment);
  FreeEnvironmentStringsA(block);
  return environment;
}

bool GetEnvironmentValue(const std::string& name, std::string& value) {
  // Most values fit; for others the system tells the size.
  std::string buffer(256, '\0');
  for (;;) {
    const DWORD length = GetEnvironmentVariableA(name.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0) return false;
    if (length < buffer.size()) {
      value.assign(buffer, 0, length);
      return true;
    }
    // The size that the value needs; the loop goes on if another thread sets a longer value meanwhile.
    buffer.resize(length + 1);
  }
}

std::unique_ptr<char[]> BuildEnvironmentBlock(const Environment& environment) {
  std::size_t size = 1;
  for (const auto& [key, value] : environment) size += key.size() + value.size() + 2;
  auto block = std::make_unique<char[]>(size);  // zeroed: the NULs are there already
  char* end = block.get();
  for (const auto& [key, value] : environment) {
    end = std::copy(key.begin(), key.end(), end);
    *end++ = '=';
    end = std::copy(value.begin(), value.end(), end) + 1;
  }
  return block;
}

void ParseEnvironmentBlock(const char* block, Environment& environment) {
  for (const char* entry = block; *entry != '\0'; entry += std::strlen(entry) + 1) {
    // Windows keeps entries of its own such as "=C:=C:\folder", whose key is empty here.
    const char* equals = std::strchr(entry, '=');
    if (equals == nullptr) continue;
    environment[std::string(entry, equals)] = equals + 1;
  }
}

}  // namespace kestrun
