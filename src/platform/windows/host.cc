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

// The run-time library has no way to try a stream's lock. So a thread flushes the streams, and is waited for one second
// at most: it hangs if a stopped thread has locked a stream.
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

// The run-time library maps only one of the system's errors for a closed pipe to EPIPE and the others to EINVAL, so the
// system's own number is asked.
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

// 0: only the administrator can make symbolic links, and the access of a file follows from its folder.
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

// The system keeps no such count.
void TakeOverChildTimes(DWORD) {}

bool AreNamedObjectsRefused() {
  return false;
}

void RemoveStaleObjects() {}

bool IsStopped(DWORD) {
  return false;
}

// False: a control event goes to all processes of a console, and can't be sent to one.
bool AskToEnd(DWORD) {
  return false;
}

}  // namespace kestrun::platform
