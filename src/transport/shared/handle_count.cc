// Neither end of a connection knows the other's process, on whose end it could wait. What both have open is the ring's
// event, and the system counts the handles on it. The entry point is not in every header, so it is looked up by name.
#include "transport/shared/handle_count.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace kestrun {

namespace {

using NtQueryObjectFunction = LONG(NTAPI*)(HANDLE, int, PVOID, ULONG, ULONG*);

constexpr int kObjectBasicInformation = 0;

// The beginning of the system's answer. The system requires the whole size, 56 bytes.
struct ObjectBasicInformation {
  ULONG attributes;
  ULONG grantedAccess;
  ULONG handleCount;
  ULONG rest[11];
};
static_assert(sizeof(ObjectBasicInformation) == 56);

void Report(const std::string& what) {
  const DWORD error = GetLastError();
  std::fprintf(stderr, "***** IpcSocket: %s, err = %s\n", what.c_str(), std::to_string(error).c_str());
}

NtQueryObjectFunction FindEntryPoint() {
  const HMODULE library = LoadLibraryA("ntdll.dll");
  if (library == nullptr) {
    Report("could not open NTDLL.DLL");
    return nullptr;
  }
  const FARPROC found = GetProcAddress(library, "NtQueryObject");
  if (found == nullptr) {
    Report("could not find NtQueryObject() in NTDLL.DLL");
    FreeLibrary(library);
    return nullptr;
  }
  return reinterpret_cast<NtQueryObjectFunction>(reinterpret_cast<void*>(found));
}

// Without a lock: two threads that call this first at the same time find the same entry.
NtQueryObjectFunction EntryPoint() {
  static std::atomic<NtQueryObjectFunction> known{nullptr};
  NtQueryObjectFunction entry = known.load();
  if (entry == nullptr) {
    entry = FindEntryPoint();
    known.store(entry);
  }
  return entry;
}

}  // namespace

u32 GetHandleCount(HANDLE handle) {
  const NtQueryObjectFunction query = EntryPoint();
  if (query == nullptr) return 0;
  ObjectBasicInformation information{};
  if (query(handle, kObjectBasicInformation, &information, sizeof information, nullptr) < 0) {
    Report("NtQueryObject() failed");
    return 0;
  }
  return information.handleCount;
}

}  // namespace kestrun
