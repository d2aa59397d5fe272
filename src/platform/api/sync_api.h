// Handles, named objects, waits, threads, thread-local storage, shared memory and modules under their Win32 names.
//
// Each function behaves as its Windows twin does for the arguments that the program passes; where the layer promises
// less, the line above the function says so. Failure is FALSE, null or WAIT_FAILED with GetLastError telling why.
// Security attributes are accepted and ignored: see base_api.h.
#ifndef KESTRUN_PLATFORM_API_SYNC_API_H_
#define KESTRUN_PLATFORM_API_SYNC_API_H_

#include <pthread.h>

#include "platform/api/base_api.h"

#define ERROR_FILE_INVALID 1006u
#define ERROR_MAPPED_ALIGNMENT 1132u
#define ERROR_INVALID_ADDRESS 487u

#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED 0x80u
#define WAIT_ABANDONED_0 0x80u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64

#define STANDARD_RIGHTS_REQUIRED 0x000F0000u
#define DELETE 0x00010000u
#define READ_CONTROL 0x00020000u
#define SYNCHRONIZE 0x00100000u
#define EVENT_MODIFY_STATE 0x0002u
#define EVENT_ALL_ACCESS 0x1F0003u
#define MUTEX_MODIFY_STATE 0x0001u
#define MUTEX_ALL_ACCESS 0x1F0001u
#define SEMAPHORE_MODIFY_STATE 0x0002u
#define SEMAPHORE_ALL_ACCESS 0x1F0003u

#define DUPLICATE_CLOSE_SOURCE 0x1u
#define DUPLICATE_SAME_ACCESS 0x2u

#define CREATE_SUSPENDED 0x00000004u
#define STILL_ACTIVE 259u

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

#define TLS_OUT_OF_INDEXES 0xFFFFFFFFu

#define PAGE_NOACCESS 0x01u
#define PAGE_READONLY 0x02u
#define PAGE_READWRITE 0x04u
#define SECTION_QUERY 0x0001u
#define FILE_MAP_WRITE 0x0002u
#define FILE_MAP_READ 0x0004u
#define FILE_MAP_ALL_ACCESS 0x000F001Fu
#define MEM_COMMIT 0x00001000u
#define MEM_FREE 0x00010000u
#define MEM_MAPPED 0x00040000u

// Handles -----------------------------------------------------------------------------------------------------------

BOOL CloseHandle(HANDLE handle);
// Both processes must be this one; the access asked for has no effect.
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target, DWORD access,
                     BOOL inherit, DWORD options);

// Events, mutexes, semaphores ---------------------------------------------------------------------------------------
//
// A name starting with "Global\" and one without are two name spaces, both shared by the processes of one user. Create
// of a name that exists gives a handle to that object and ERROR_ALREADY_EXISTS, or null and ERROR_INVALID_HANDLE where
// it is of another kind.

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCSTR name);
HANDLE OpenEventA(DWORD access, BOOL inherit, LPCSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCSTR name);
HANDLE OpenMutexA(DWORD access, BOOL inherit, LPCSTR name);
BOOL ReleaseMutex(HANDLE mutex);

HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES attributes, LONG initialCount, LONG maximumCount, LPCSTR name);
HANDLE OpenSemaphoreA(DWORD access, BOOL inherit, LPCSTR name);
BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount);

// Waits -------------------------------------------------------------------------------------------------------------

DWORD WaitForSingleObject(HANDLE handle, DWORD timeoutMs);
// With waitAll only objects that a wait does not use up: threads, processes, manual-reset events. Others give
// ERROR_NOT_SUPPORTED.
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeoutMs);
DWORD SignalObjectAndWait(HANDLE toSignal, HANDLE toWaitOn, DWORD timeoutMs, BOOL alertable);

void Sleep(DWORD timeoutMs);
BOOL SwitchToThread();

// Recursive, for the threads of one process; no system call while there is no contention.
struct CRITICAL_SECTION {
  pthread_mutex_t mutex;
};
using LPCRITICAL_SECTION = CRITICAL_SECTION*;

void InitializeCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);
void EnterCriticalSection(CRITICAL_SECTION* section);
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);

// Threads -----------------------------------------------------------------------------------------------------------

using LPTHREAD_START_ROUTINE = DWORD(WINAPI*)(LPVOID);
using PTHREAD_START_ROUTINE = LPTHREAD_START_ROUTINE;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE start, LPVOID argument,
                    DWORD flags, DWORD* threadId);
// The count before the call: 1 for what was started suspended, 0 for what runs; 0xFFFFFFFF on failure.
DWORD ResumeThread(HANDLE thread);
// The value is always remembered; the kernel is asked to follow it, and may refuse without this call failing.
BOOL SetThreadPriority(HANDLE thread, int priority);
int GetThreadPriority(HANDLE thread);
BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode);
HANDLE GetCurrentThread();
DWORD GetCurrentThreadId();
HANDLE GetCurrentProcess();
DWORD GetCurrentProcessId();

DWORD TlsAlloc();
BOOL TlsFree(DWORD index);
LPVOID TlsGetValue(DWORD index);
BOOL TlsSetValue(DWORD index, LPVOID value);

// Sequentially consistent, all four: on Windows these functions are full barriers, and their callers may rely on it.
inline LONG InterlockedIncrement(LONG volatile* target) {
  return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(LONG volatile* target) {
  // Sequentially consistent, as above.
  return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(LONG volatile* target, LONG value) {
  // Sequentially consistent, as above.
  return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* target, LONG value, LONG comparand) {
  // Sequentially consistent, as above.
  __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}

// Shared memory -----------------------------------------------------------------------------------------------------

struct MEMORY_BASIC_INFORMATION {
  PVOID BaseAddress;
  PVOID AllocationBase;
  DWORD AllocationProtect;
  SIZE_T RegionSize;
  DWORD State;
  DWORD Protect;
  DWORD Type;
};

struct SYSTEM_INFO {
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress;
  LPVOID lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwAllocationGranularity;
};

// INVALID_HANDLE_VALUE as the file makes a zeroed region of the given size, whose memory is reserved at once: a full
// file system is an error here and never a fault at a later access. More than half of the machine's memory is
// ERROR_NOT_ENOUGH_MEMORY. A size of 0 means the file's size; an empty file
// gives ERROR_FILE_INVALID. A region of a disk file has no name.
HANDLE CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protect, DWORD sizeHigh, DWORD sizeLow,
                          LPCSTR name);
HANDLE OpenFileMappingA(DWORD access, BOOL inherit, LPCSTR name);
// The offset is a multiple of dwAllocationGranularity. 0 bytes means up to the end. The view outlives the handle.
LPVOID MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes);
BOOL UnmapViewOfFile(LPCVOID address);
BOOL FlushViewOfFile(LPCVOID address, SIZE_T bytes);
// Knows views of this layer only; 0 for any other address.
SIZE_T VirtualQuery(LPCVOID address, MEMORY_BASIC_INFORMATION* information, SIZE_T length);
void GetSystemInfo(SYSTEM_INFO* information);

// Modules -----------------------------------------------------------------------------------------------------------
//
// A fixed set of functions that the program reaches by name; see modules.cc. Nothing is loaded from disk.

HMODULE LoadLibraryA(LPCSTR name);
FARPROC GetProcAddress(HMODULE module, LPCSTR name);
BOOL FreeLibrary(HMODULE module);

#endif  // KESTRUN_PLATFORM_API_SYNC_API_H_
