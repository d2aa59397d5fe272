#include "platform/host.h"

#include <fcntl.h>
#include <io.h>

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kestrun::platform {

const char kPathListSeparator = ';';
const bool kFileNamesIgnoreCase = true;

const bool kCommandLineIsJoined = false;

std::string DefaultCommonPath() {
  return "c:\\Program Files\\Ravelin Works\\Common";
}

std::string NamedObjectFolder() {
  return "";
}

bool SeparateNamedObjects() {
  return false;
}

void RemoveAbandonedObjects() {}

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

// The run-time library knows one of the system's errors for it and makes EINVAL of the others.
WriteFailure LastWriteFailure() {
  const int error = errno;
  const unsigned long systemError = _doserrno;
  const bool isReaderGone =
      systemError == ERROR_BROKEN_PIPE || systemError == ERROR_NO_DATA || systemError == ERROR_PIPE_NOT_CONNECTED;
  return {error == EPIPE || isReaderGone, std::strerror(error)};
}

void EndWithoutReader() {
  ExitProcess(1);
}

std::FILE* OpenStdio(const std::string& name, const char* mode) {
  return std::fopen(name.c_str(), mode);
}

std::FILE* OpenRegularFile(const std::string& name) {
  return OpenStdio(name, "r");
}

// Links can be made by the administrator alone, and files are as open as their folders.
const DWORD kRefuseFilesOfOthers = 0;

std::string WhyNoFile(const std::string&) {
  return "";
}

std::string WhyOfOthers(const std::string&) {
  return "";
}

std::string HostName() {
  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof name;
  return GetComputerNameA(name, &size) ? std::string(name, size) : "";
}

unsigned UsableProcessors() {
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &own, &all) || own == 0) return 1;
  return static_cast<unsigned>(std::popcount(own));
}

void TakeOverChildTimes(DWORD) {}

void RemoveStaleObjects() {}

bool IsStopped(DWORD) {
  return false;
}

// A console tells all the processes in it.
bool AskToEnd(DWORD) {
  return false;
}

}  // namespace kestrun::platform
