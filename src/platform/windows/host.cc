#include "platform/host.h"

#include <fcntl.h>
#include <io.h>

#include <bit>

namespace kestrun::platform {

const char kPathListSeparator = ';';
const bool kFileNamesIgnoreCase = true;

std::string DefaultCommonPath() {
  return "c:\\Program Files\\Ravelin Works\\Common";
}

void SetStandardStreamsBinary() {
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
}

// The run-time library has no way to try a stream's lock, so a thread that may hang does it, for a second.
void FlushStandardStreams() {
  constexpr DWORD kLimitMs = 1000;
  const HANDLE thread = CreateThread(
      nullptr, 0,
      [](LPVOID) -> DWORD {
        std::fflush(stdout);
        std::fflush(stderr);
        return 0;
      },
      nullptr, 0, nullptr);
  if (thread == nullptr) return;
  WaitForSingleObject(thread, kLimitMs);
  CloseHandle(thread);
}

std::FILE* OpenStdio(const std::string& name, const char* mode) {
  return std::fopen(name.c_str(), mode);
}

unsigned UsableProcessors() {
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &own, &all) || own == 0) return 1;
  return static_cast<unsigned>(std::popcount(own));
}

// A console tells all the processes in it.
bool AskToEnd(DWORD) {
  return false;
}

}  // namespace kestrun::platform
