#include "support/test_tool.h"

#include "platform/win32.h"

namespace kestrun::test {

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
