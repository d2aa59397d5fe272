// What differs between the systems and is no Win32 call: plain values and a few helpers. Callers branch on these
// values and never ask which system they run on.
#ifndef KESTRUN_PLATFORM_HOST_H_
#define KESTRUN_PLATFORM_HOST_H_

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/win32.h"

namespace kestrun::platform {

// What stands between the elements of PATH: ';' on Windows, ':' elsewhere.
extern const char kPathListSeparator;

// True where a command may be named without its ending and in any case, so that lookups fold the case of a name.
extern const bool kFileNamesIgnoreCase;

// The folder above "DORN" in which settings and logs live when RV_COMMON_PATH is not set. No separator at its end.
std::string DefaultCommonPath();

// Standard output and error carry a tool's bytes as they are: no line end is translated. Called once, at start.
void SetStandardStreamsBinary();

// Writes out what standard output and error hold back. For a process that is dying with its other threads stopped: a
// stream that one of them has locked is left alone; this may take a second.
void FlushStandardStreams();

// The last step of looking up a program, for when no candidate exists by its exact name: the executable file in the
// candidate's folder whose name equals the candidate's last component, or that less ".exe", without regard to case (the
// smallest in byte order). Always false where the system's own lookups ignore case.
bool FindExecutableIgnoringCase(const std::string& candidate, std::string& found);

// fopen with the name mapping of the layer (either separator is accepted). Null on failure, with errno set.
std::FILE* OpenStdio(const std::string& name, const char* mode);

// Processors that this process may really use: affinity and, where there is one, the cgroup quota. At least 1.
unsigned UsableProcessors();

// Asks a child of this process to end, as a user does who ends it from outside (SIGTERM). False where the system has
// no way to ask one process alone, or if there is no such child.
bool AskToEnd(DWORD childId);

// A handle as the int that the reactor keeps, and back. Handles have 32 significant bits on every system.
inline int HandleToInt(HANDLE handle) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}
inline HANDLE IntToHandle(int value) {
  return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(value));
}

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_HOST_H_
