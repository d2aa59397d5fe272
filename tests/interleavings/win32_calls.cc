// The system calls of the code under test, each a step of the world. What only the explorer's own process would notice
// (the clock, thread-local storage) is no step.
#include <cstring>

#include "arena.h"
#include "platform/win32.h"
#include "protocol/job_record.h"
#include "runtime/files/log.h"
#include "world.h"

using kestrun::u32;
using kestrun::u64;
using kestrun::interleavings::ObjectKind;
using kestrun::interleavings::Step;
using kestrun::interleavings::World;

namespace {

World& TheWorld() {
  return World::Get();
}

HANDLE AsHandle(std::intptr_t value) {
  return reinterpret_cast<HANDLE>(value);
}

Step OnHandle(Step::Kind kind, HANDLE handle) {
  Step step;
  step.kind = kind;
  step.handles[0] = handle;
  step.count = 1;
  return step;
}

HANDLE Open(ObjectKind kind, LPCSTR name) {
  Step step;
  step.kind = Step::Kind::kOpen;
  step.object = kind;
  step.name = name;
  return AsHandle(TheWorld().Call(step));
}

HANDLE Create(ObjectKind kind, LPCSTR name, LONG initial, LONG maximum = 0, BOOL isManual = FALSE) {
  Step step;
  step.kind = Step::Kind::kCreate;
  step.object = kind;
  step.name = name;
  step.initial = initial;
  step.maximum = maximum;
  step.isManual = isManual != FALSE;
  return AsHandle(TheWorld().Call(step));
}

LONG NTAPI QueryObject(HANDLE handle, int, PVOID answer, ULONG, ULONG*) {
  static_cast<ULONG*>(answer)[2] = static_cast<ULONG>(TheWorld().Call(OnHandle(Step::Kind::kCountHandles, handle)));
  return 0;
}

}  // namespace

DWORD GetLastError() {
  return TheWorld().Current().lastError;
}
void SetLastError(DWORD error) {
  TheWorld().Current().lastError = error;
}
BOOL CloseHandle(HANDLE handle) {
  return static_cast<BOOL>(TheWorld().Call(OnHandle(Step::Kind::kClose, handle)));
}

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name) {
  return Create(ObjectKind::kEvent, name, initialState, 0, manualReset);
}
HANDLE OpenEventA(DWORD, BOOL, LPCSTR name) {
  return Open(ObjectKind::kEvent, name);
}
BOOL SetEvent(HANDLE event) {
  return static_cast<BOOL>(TheWorld().Call(OnHandle(Step::Kind::kSet, event)));
}
BOOL ResetEvent(HANDLE event) {
  return static_cast<BOOL>(TheWorld().Call(OnHandle(Step::Kind::kReset, event)));
}
HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL, LPCSTR name) {
  return Create(ObjectKind::kMutex, name, 0);
}
HANDLE OpenMutexA(DWORD, BOOL, LPCSTR name) {
  return Open(ObjectKind::kMutex, name);
}
BOOL ReleaseMutex(HANDLE mutex) {
  return static_cast<BOOL>(TheWorld().Call(OnHandle(Step::Kind::kReleaseMutex, mutex)));
}
HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCSTR name) {
  return Create(ObjectKind::kSemaphore, name, initialCount, maximumCount);
}
HANDLE OpenSemaphoreA(DWORD, BOOL, LPCSTR name) {
  return Open(ObjectKind::kSemaphore, name);
}
BOOL ReleaseSemaphore(HANDLE semaphore, LONG, LONG*) {
  return static_cast<BOOL>(TheWorld().Call(OnHandle(Step::Kind::kReleaseSemaphore, semaphore)));
}

DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs) {
  return WaitForMultipleObjects(1, &handle, FALSE, timeoutMs);
}
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL, DWORD timeoutMs) {
  Step step;
  step.kind = Step::Kind::kWait;
  step.count = count;
  for (DWORD i = 0; i < count; ++i) step.handles[i] = handles[i];
  step.timeoutMs = timeoutMs;
  return static_cast<DWORD>(TheWorld().Call(step));
}
DWORD SignalObjectAndWait(HANDLE, HANDLE, DWORD, BOOL) {
  TheWorld().Fail("SignalObjectAndWait has no model");
  return WAIT_FAILED;
}
void Sleep(DWORD timeoutMs) {
  if (timeoutMs > 0) WaitForMultipleObjects(0, nullptr, FALSE, timeoutMs);
}
BOOL SwitchToThread() {
  return TRUE;
}

// Fibers of one process change places at points only, and no code under test reaches one that another thread of its
// process waits for, so that a section is never contended.
void InitializeCriticalSection(CRITICAL_SECTION*) {}
void DeleteCriticalSection(CRITICAL_SECTION*) {}
void EnterCriticalSection(CRITICAL_SECTION*) {}
void LeaveCriticalSection(CRITICAL_SECTION*) {}

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start, LPVOID argument, DWORD, DWORD*) {
  Step step;
  step.kind = Step::Kind::kStartThread;
  step.start = start;
  step.argument = argument;
  return AsHandle(TheWorld().Call(step));
}
DWORD ResumeThread(HANDLE thread) {
  return TheWorld().ResumeThreadOf(thread) ? 1 : 0xFFFFFFFF;
}
BOOL SetThreadPriority(HANDLE, int) {
  return TRUE;
}
int GetThreadPriority(HANDLE) {
  return THREAD_PRIORITY_NORMAL;
}
BOOL GetExitCodeThread(HANDLE, DWORD* exitCode) {
  *exitCode = 0;
  return TRUE;
}
HANDLE GetCurrentThread() {
  return AsHandle(-2);
}
DWORD GetCurrentThreadId() {
  return static_cast<DWORD>(TheWorld().CurrentThread()) + 1;
}
// All clients begin their search of a table at the same entry.
DWORD GetCurrentProcessId() {
  return 1024u * static_cast<DWORD>(TheWorld().CurrentProcess() + 1) + 7;
}
DWORD TlsAlloc() {
  return 1;
}
LPVOID TlsGetValue(DWORD index) {
  return TheWorld().Current().slots[index];
}
BOOL TlsSetValue(DWORD index, LPVOID value) {
  TheWorld().Current().slots[index] = value;
  return TRUE;
}

HANDLE CreateFileMappingA(HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD, LPCSTR name) {
  return Create(ObjectKind::kRegion, name, 0);
}
HANDLE OpenFileMappingA(DWORD, BOOL, LPCSTR name) {
  return Open(ObjectKind::kRegion, name);
}
LPVOID MapViewOfFile(HANDLE mapping, DWORD, DWORD, DWORD, SIZE_T) {
  const auto* const region = TheWorld().Lookup(TheWorld().Current(), mapping);
  return region != nullptr ? region->memory : nullptr;
}
BOOL UnmapViewOfFile(LPCVOID) {
  return TRUE;
}
BOOL FlushViewOfFile(LPCVOID, SIZE_T) {
  return TRUE;
}
SIZE_T VirtualQuery(LPCVOID, MEMORY_BASIC_INFORMATION* information, SIZE_T length) {
  information->RegionSize = World::kRegionSize;
  return length;
}
void GetSystemInfo(SYSTEM_INFO* information) {
  information->dwPageSize = 4096;
}
HMODULE LoadLibraryA(LPCSTR) {
  return AsHandle(1);
}
// This system does not tell which thread owns a mutex.
FARPROC GetProcAddress(HMODULE, LPCSTR name) {
  if (std::strcmp(name, "NtQueryObject") != 0) return nullptr;
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&QueryObject));
}
BOOL FreeLibrary(HMODULE) {
  return TRUE;
}
// No files here: a mapping of a disk file is not part of what is explored.
HANDLE CreateFileA(LPCSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
  return INVALID_HANDLE_VALUE;
}
DWORD GetFileSize(HANDLE, DWORD*) {
  return 0;
}
BOOL GetFileTime(HANDLE, FILETIME*, FILETIME*, FILETIME*) {
  return FALSE;
}

// What a thread reads from the clock is part of what it has seen. 0 is no time, as on a system that has run a while.
DWORD GetTickCount() {
  const u64 now = TheWorld().GetTime() + 1000;
  TheWorld().See(now);
  return static_cast<DWORD>(now);
}
// Far apart, so that every spin gives up at its first check.
BOOL QueryPerformanceCounter(LARGE_INTEGER* value) {
  value->QuadPart = static_cast<LONGLONG>(++TheWorld().Current().counter * 1000);
  return TRUE;
}
BOOL QueryPerformanceFrequency(LARGE_INTEGER* value) {
  value->QuadPart = 1000;
  return TRUE;
}

namespace kestrun {
void WriteLog(int, int, const std::string&, const Log::Fields&) {}
}  // namespace kestrun

// The introduction numbers its connections from the time.
extern "C" time_t __wrap_time(time_t*) {
  return 100;
}

namespace kestrun {

// For the journal, which no test here has.
std::int64_t SteadyMicroseconds() {
  return 0;
}

}  // namespace kestrun
