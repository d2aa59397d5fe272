// What a crash handler needs: the filter for unhandled exceptions, the threads of this process, and dumps.
//
// The filter is called for the fatal signals (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP) and, by way of the
// abort, for a C++ exception that is not caught. It runs on the thread that failed, on a stack of its own, so that an
// overflow of the thread's stack is caught too.
#ifndef KESTRUN_PLATFORM_API_DIAGNOSTICS_API_H_
#define KESTRUN_PLATFORM_API_DIAGNOSTICS_API_H_

#include "platform/api/base_api.h"

#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)
#define EXCEPTION_MAXIMUM_PARAMETERS 15

#define EXCEPTION_ACCESS_VIOLATION 0xC0000005u
#define EXCEPTION_IN_PAGE_ERROR 0xC0000006u
#define EXCEPTION_ILLEGAL_INSTRUCTION 0xC000001Du
#define EXCEPTION_FLT_INVALID_OPERATION 0xC0000090u
#define EXCEPTION_INT_DIVIDE_BY_ZERO 0xC0000094u
#define EXCEPTION_BREAKPOINT 0x80000003u
// The code of an abort, and so of an uncaught C++ exception.
#define STATUS_FATAL_APP_EXIT 0x40000015u

struct EXCEPTION_RECORD {
  DWORD ExceptionCode;
  DWORD ExceptionFlags;
  EXCEPTION_RECORD* ExceptionRecord;
  PVOID ExceptionAddress;
  DWORD NumberParameters;
  ULONG_PTR ExceptionInformation[EXCEPTION_MAXIMUM_PARAMETERS];
};

// The machine state at the failure: the system's ucontext_t, and the signal that brought it.
struct CONTEXT {
  void* MachineContext;
  int Signal;
};

struct EXCEPTION_POINTERS {
  EXCEPTION_RECORD* ExceptionRecord;
  CONTEXT* ContextRecord;
};
using PEXCEPTION_POINTERS = EXCEPTION_POINTERS*;
using PTOP_LEVEL_EXCEPTION_FILTER = LONG(WINAPI*)(EXCEPTION_POINTERS*);
using LPTOP_LEVEL_EXCEPTION_FILTER = PTOP_LEVEL_EXCEPTION_FILTER;

// Sets the filter of this process; gives the filter before, null for none. After a filter that returns, the process
// dies of its signal, save that EXCEPTION_CONTINUE_EXECUTION goes on where it stopped.
LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter);

#define TH32CS_SNAPTHREAD 0x4u
#define THREAD_SUSPEND_RESUME 0x2u

struct THREADENTRY32 {
  DWORD dwSize;
  DWORD cntUsage;
  DWORD th32ThreadID;
  DWORD th32OwnerProcessID;
  LONG tpBasePri;
  LONG tpDeltaPri;
  DWORD dwFlags;
};

// The threads of this process alone, as they stood at that moment. CloseHandle ends the snapshot.
HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD processId);
BOOL Thread32First(HANDLE snapshot, THREADENTRY32* entry);
BOOL Thread32Next(HANDLE snapshot, THREADENTRY32* entry);
// A thread of this process, for SuspendThread alone.
HANDLE OpenThread(DWORD access, BOOL inherit, DWORD threadId);
// Meant for a process that is about to end: a suspended thread stays so. Waits until the thread has stopped, for at
// most 200 ms; 0xFFFFFFFF if it did not.
DWORD SuspendThread(HANDLE thread);

enum MINIDUMP_TYPE { MiniDumpNormal = 0, MiniDumpWithFullMemory = 2 };

struct MINIDUMP_EXCEPTION_INFORMATION {
  DWORD ThreadId;
  PEXCEPTION_POINTERS ExceptionPointers;
  BOOL ClientPointers;
};
using PMINIDUMP_EXCEPTION_INFORMATION = MINIDUMP_EXCEPTION_INFORMATION*;
struct MINIDUMP_USER_STREAM_INFORMATION;
struct MINIDUMP_CALLBACK_INFORMATION;

// Only reached through LoadLibraryA("dbghelp.dll") and GetProcAddress, as on Windows. Writes a core file of this
// process in ELF form, which debuggers open together with the program. It holds the thread that failed (without
// `exception`: the calling one) and those that SuspendThread has stopped. MiniDumpNormal leaves out all memory but the
// stacks and the data of the program and its libraries. One call at a time.
BOOL MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE type,
                       const MINIDUMP_EXCEPTION_INFORMATION* exception, const MINIDUMP_USER_STREAM_INFORMATION* streams,
                       const MINIDUMP_CALLBACK_INFORMATION* callback);

#endif  // KESTRUN_PLATFORM_API_DIAGNOSTICS_API_H_
