// The functions that the program asks for by name at run time, and the modules that they are in on Windows.

#include <strings.h>

#include <cstdint>
#include <cstring>
#include <iterator>

#include "platform/api/diagnostics_api.h"
#include "platform/api/sync_api.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/objects/lock_holder.h"
#include "platform/linux/objects/stored_waitable.h"

namespace kestrun::platform {

namespace {

struct Function {
  const char* name;
  FARPROC address;
};

struct Module {
  const char* name;
  const Function* functions;
  std::size_t count;
};

template <class T>
FARPROC AsProc(T* function) {
  // The cast goes through a generic function type, because compilers warn of a direct one.
  return reinterpret_cast<FARPROC>(reinterpret_cast<void (*)()>(function));
}

constexpr int kObjectBasicInformation = 0;
constexpr int kMutantOwnerInformation = 1;
constexpr NTSTATUS kStatusInvalidInfoClass = static_cast<NTSTATUS>(0xC0000003u);
constexpr NTSTATUS kStatusInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004u);
constexpr NTSTATUS kStatusInvalidHandle = static_cast<NTSTATUS>(0xC0000008u);

struct ObjectBasicInformation {
  ULONG attributes;
  ULONG grantedAccess;
  ULONG handleCount;
  ULONG pointerCount;
  ULONG reserved[10];
};
static_assert(sizeof(ObjectBasicInformation) == 56);

// Answers a handle count of 1 if this is the only handle on the object, and a larger number if not: the object table
// marks which processes hold an object, and not how often.
NTSTATUS QueryObject(HANDLE handle, int what, void* buffer, ULONG length, ULONG* returnedLength) {
  if (what != kObjectBasicInformation) return kStatusInvalidInfoClass;
  if (length < sizeof(ObjectBasicInformation)) return kStatusInfoLengthMismatch;
  const auto object = LookUpObject(handle);
  if (!object) return kStatusInvalidHandle;
  ObjectBasicInformation answer{};
  answer.handleCount = object->HandleCount();
  answer.pointerCount = answer.handleCount;
  std::memcpy(buffer, &answer, sizeof answer);
  if (returnedLength) *returnedLength = sizeof answer;
  return 0;
}

struct ClientId {
  HANDLE process;
  HANDLE thread;
};

HANDLE IdAsHandle(pid_t id) {
  return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(id));
}

// Answers which thread of which process owns a mutex; both are 0 if it has no owner.
NTSTATUS QueryMutant(HANDLE handle, int what, void* buffer, ULONG length, ULONG* returnedLength) {
  if (what != kMutantOwnerInformation) return kStatusInvalidInfoClass;
  if (length < sizeof(ClientId)) return kStatusInfoLengthMismatch;
  pid_t thread = 0;
  if (!FindMutexOwner(handle, &thread)) return kStatusInvalidHandle;
  const ClientId answer{IdAsHandle(ProcessOfThread(thread)), IdAsHandle(thread)};
  std::memcpy(buffer, &answer, sizeof answer);
  if (returnedLength) *returnedLength = sizeof answer;
  return 0;
}

const Function kNtdll[] = {{"NtQueryObject", AsProc(QueryObject)}, {"NtQueryMutant", AsProc(QueryMutant)}};

const Function kDbghelp[] = {{"MiniDumpWriteDump", AsProc(MiniDumpWriteDump)}};

const Module kModules[] = {{"ntdll.dll", kNtdll, std::size(kNtdll)}, {"dbghelp.dll", kDbghelp, std::size(kDbghelp)}};

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HMODULE LoadLibraryA(LPCSTR name) {
  for (const Module& module : kModules) {
    if (strcasecmp(module.name, name) == 0) return const_cast<Module*>(&module);
  }
  SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
  for (const Module& known : kModules) {
    if (&known != module) continue;
    for (std::size_t i = 0; i < known.count; ++i) {
      if (std::strcmp(known.functions[i].name, name) == 0) return known.functions[i].address;
    }
  }
  SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}

BOOL FreeLibrary(HMODULE module) {
  for (const Module& known : kModules) {
    if (&known == module) return TRUE;
  }
  SetLastError(ERROR_MOD_NOT_FOUND);
  return FALSE;
}
