#include "support/test_tool.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "platform/win32.h"

namespace kestrun::test {

unsigned long OwnProcessId() {
  return GetCurrentProcessId();
}

void BinaryStreams() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
}

unsigned long StartBackground(const std::string&, const std::vector<std::string>& words) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  std::string text = "\"" + std::string(path) + "\"";
  for (const std::string& word : words) text += " \"" + word + "\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessA(nullptr, text.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) return 0;
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return process.dwProcessId;
}

}  // namespace kestrun::test
