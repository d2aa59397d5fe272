#include "transport/shared/mutex_owner.h"

#include <cstdint>

namespace kestrun {

namespace {

using NtQueryMutantFunction = LONG(NTAPI*)(HANDLE, int, PVOID, ULONG, ULONG*);

constexpr int kMutantOwnerInformation = 1;

struct OwnerInformation {
  HANDLE process;
  HANDLE thread;
};

NtQueryMutantFunction FindEntryPoint() {
  const HMODULE library = LoadLibraryA("ntdll.dll");
  const FARPROC found = library != nullptr ? GetProcAddress(library, "NtQueryMutant") : nullptr;
  return reinterpret_cast<NtQueryMutantFunction>(reinterpret_cast<void*>(found));
}

u32 IdOf(HANDLE handle) {
  return static_cast<u32>(reinterpret_cast<std::uintptr_t>(handle));
}

}  // namespace

MutexOwner GetMutexOwner(HANDLE mutex) {
  // Looked up by name, since not every system has it; then no owner is known.
  static const NtQueryMutantFunction query = FindEntryPoint();
  OwnerInformation owner{};
  if (query == nullptr || query(mutex, kMutantOwnerInformation, &owner, sizeof owner, nullptr) < 0) return {};
  return {true, IdOf(owner.process), IdOf(owner.thread)};
}

}  // namespace kestrun
