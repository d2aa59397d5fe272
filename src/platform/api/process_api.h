// Processes, job objects, pipes, the console, the environment and version information, under their Win32 names.
//
// A child inherits its three standard streams and no other descriptor, whatever bInheritHandles says, unless
// kInheritDescriptors (child_io.h) asks for more. Its signals and its signal mask are at their defaults. The exit code
// of a process that died by signal n is 128 + n.
//
// A job object with JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE ends everything below the tools that were put in it: when its
// last handle is closed, and when the process that made it dies in any way. A process can be put in a job only while it
// is still suspended.
#ifndef KESTRUN_PLATFORM_API_PROCESS_API_H_
#define KESTRUN_PLATFORM_API_PROCESS_API_H_

#include "platform/api/base_api.h"
#include "platform/api/sync_api.h"

// ---- Pipes and standard streams ----

#define STD_INPUT_HANDLE (static_cast<DWORD>(-10))
#define STD_OUTPUT_HANDLE (static_cast<DWORD>(-11))
#define STD_ERROR_HANDLE (static_cast<DWORD>(-12))

#define FILE_TYPE_UNKNOWN 0u
#define FILE_TYPE_DISK 1u
#define FILE_TYPE_CHAR 2u
#define FILE_TYPE_PIPE 3u

#define HANDLE_FLAG_INHERIT 1u

// The size has no effect. A read end whose write end was given to a child gives ERROR_BROKEN_PIPE once the child has
// ended and all that it wrote is read, even if other processes still hold the write end.
BOOL CreatePipe(HANDLE* readPipe, HANDLE* writePipe, LPSECURITY_ATTRIBUTES attributes, DWORD size);
// Only the number of bytes that can be read at once; a buffer, if given, stays as it is and counts as 0 bytes read.
BOOL PeekNamedPipe(HANDLE pipe, LPVOID buffer, DWORD bufferSize, LPDWORD bytesRead, LPDWORD totalAvailable,
                   LPDWORD bytesLeft);
// The same handle for each call; closing it leaves the descriptor open.
HANDLE GetStdHandle(DWORD which);
BOOL SetStdHandle(DWORD which, HANDLE handle);
DWORD GetFileType(HANDLE file);
// No effect: which handles a child gets is said by STARTUPINFOA alone.
BOOL SetHandleInformation(HANDLE object, DWORD mask, DWORD flags);

// ---- Processes ----

#define DEBUG_PROCESS 0x00000001u
#define DETACHED_PROCESS 0x00000008u
#define CREATE_NEW_CONSOLE 0x00000010u
#define NORMAL_PRIORITY_CLASS 0x00000020u
#define IDLE_PRIORITY_CLASS 0x00000040u
#define HIGH_PRIORITY_CLASS 0x00000080u
#define CREATE_NEW_PROCESS_GROUP 0x00000200u
#define BELOW_NORMAL_PRIORITY_CLASS 0x00004000u
#define ABOVE_NORMAL_PRIORITY_CLASS 0x00008000u
#define CREATE_BREAKAWAY_FROM_JOB 0x01000000u
#define CREATE_NO_WINDOW 0x08000000u

#define STARTF_USESHOWWINDOW 0x00000001u
#define STARTF_USESTDHANDLES 0x00000100u
#define SW_HIDE 0
#define SW_SHOWDEFAULT 10

#define STILL_ACTIVE 259u

#define PROCESS_TERMINATE 0x0001u
#define PROCESS_VM_READ 0x0010u
#define PROCESS_SET_INFORMATION 0x0200u
#define PROCESS_QUERY_INFORMATION 0x0400u
#define PROCESS_QUERY_LIMITED_INFORMATION 0x1000u
#define PROCESS_ALL_ACCESS 0x1FFFFFu

struct STARTUPINFOA {
  DWORD cb;
  LPSTR lpReserved;
  LPSTR lpDesktop;
  LPSTR lpTitle;
  DWORD dwX;
  DWORD dwY;
  DWORD dwXSize;
  DWORD dwYSize;
  DWORD dwXCountChars;
  DWORD dwYCountChars;
  DWORD dwFillAttribute;
  DWORD dwFlags;
  WORD wShowWindow;
  WORD cbReserved2;
  LPBYTE lpReserved2;
  HANDLE hStdInput;
  HANDLE hStdOutput;
  HANDLE hStdError;
};
using LPSTARTUPINFOA = STARTUPINFOA*;
// The program is built without UNICODE, where the plain name is the A structure.
using STARTUPINFO = STARTUPINFOA;

struct PROCESS_INFORMATION {
  HANDLE hProcess;
  HANDLE hThread;
  DWORD dwProcessId;
  DWORD dwThreadId;
};
using LPPROCESS_INFORMATION = PROCESS_INFORMATION*;

// A child that is still suspended when this process ends is ended with it; a child that was resumed and is in no job
// goes on. A child whose standard input is this process's own stays in its session and, without
// CREATE_NEW_PROCESS_GROUP, in its process group, so that the terminal's Ctrl-C reaches it. Any other child gets a
// process group of its own and no terminal.
//
// Fails with 2 or 3 (no such file, no such directory on the way), 5 (not executable), 8 (no memory or no process to be
// had), 193 (not a program), 206 (arguments too long), 267 (working directory).
BOOL CreateProcessA(LPCSTR applicationName, LPSTR commandLine, LPSECURITY_ATTRIBUTES processAttributes,
                    LPSECURITY_ATTRIBUTES threadAttributes, BOOL inheritHandles, DWORD creationFlags,
                    LPVOID environment, LPCSTR currentDirectory, LPSTARTUPINFOA startupInfo,
                    LPPROCESS_INFORMATION processInformation);
// For a process that this one did not start the exit code is not known: it counts as 0 after its end.
BOOL GetExitCodeProcess(HANDLE process, LPDWORD exitCode);
// The process itself or one that it started (ERROR_ACCESS_DENIED otherwise). On this process it does not return.
BOOL TerminateProcess(HANDLE process, UINT exitCode);
// Ends the process at once: no destructors, no exit handlers, no flush of the C run-time's streams. The system keeps
// the low 8 bits of the code.
[[noreturn]] void ExitProcess(UINT exitCode);
HANDLE OpenProcess(DWORD access, BOOL inheritHandle, DWORD processId);
DWORD GetProcessId(HANDLE process);
BOOL GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user);
BOOL GetProcessAffinityMask(HANDLE process, PDWORD_PTR processMask, PDWORD_PTR systemMask);
BOOL SetProcessAffinityMask(HANDLE process, DWORD_PTR mask);
BOOL EnumProcesses(DWORD* ids, DWORD size, LPDWORD needed);
// Only with a null module: the file name of the process's program, without its folder.
DWORD GetModuleBaseNameA(HANDLE process, HMODULE module, LPSTR name, DWORD size);
// Only with a null module: this program's own file.
DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size);
// The arguments, joined by the rules by which the C run-time of Windows splits them.
LPSTR GetCommandLineA();

// ---- Job objects ----

#define JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION 0x00000400u
#define JOB_OBJECT_LIMIT_BREAKAWAY_OK 0x00000800u
#define JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE 0x00002000u

enum JOBOBJECTINFOCLASS {
  JobObjectBasicAccountingInformation = 1,
  JobObjectBasicLimitInformation = 2,
  JobObjectExtendedLimitInformation = 9,
};

struct JOBOBJECT_BASIC_ACCOUNTING_INFORMATION {
  LARGE_INTEGER TotalUserTime;
  LARGE_INTEGER TotalKernelTime;
  LARGE_INTEGER ThisPeriodTotalUserTime;
  LARGE_INTEGER ThisPeriodTotalKernelTime;
  DWORD TotalPageFaultCount;
  DWORD TotalProcesses;
  DWORD ActiveProcesses;
  DWORD TotalTerminatedProcesses;
};

struct JOBOBJECT_BASIC_LIMIT_INFORMATION {
  LARGE_INTEGER PerProcessUserTimeLimit;
  LARGE_INTEGER PerJobUserTimeLimit;
  DWORD LimitFlags;
  SIZE_T MinimumWorkingSetSize;
  SIZE_T MaximumWorkingSetSize;
  DWORD ActiveProcessLimit;
  ULONG_PTR Affinity;
  DWORD PriorityClass;
  DWORD SchedulingClass;
};

struct IO_COUNTERS {
  ULONGLONG ReadOperationCount;
  ULONGLONG WriteOperationCount;
  ULONGLONG OtherOperationCount;
  ULONGLONG ReadTransferCount;
  ULONGLONG WriteTransferCount;
  ULONGLONG OtherTransferCount;
};

struct JOBOBJECT_EXTENDED_LIMIT_INFORMATION {
  JOBOBJECT_BASIC_LIMIT_INFORMATION BasicLimitInformation;
  IO_COUNTERS IoInfo;
  SIZE_T ProcessMemoryLimit;
  SIZE_T JobMemoryLimit;
  SIZE_T PeakProcessMemoryUsed;
  SIZE_T PeakJobMemoryUsed;
};

// The name is accepted and has no effect: nothing opens a job by its name.
HANDLE CreateJobObjectA(LPSECURITY_ATTRIBUTES attributes, LPCSTR name);
// Only JobObjectExtendedLimitInformation. JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE does what it says; the other two flags are
// kept without effect, since nothing leaves a job here; limits on memory, time or count are refused.
BOOL SetInformationJobObject(HANDLE job, JOBOBJECTINFOCLASS infoClass, LPVOID info, DWORD size);
// Extended limits and basic accounting. A null job, which asks for the caller's own, fails: a process cannot see here
// whether it is in one.
BOOL QueryInformationJobObject(HANDLE job, JOBOBJECTINFOCLASS infoClass, LPVOID info, DWORD size, LPDWORD returned);
BOOL AssignProcessToJobObject(HANDLE job, HANDLE process);
BOOL TerminateJobObject(HANDLE job, UINT exitCode);
BOOL IsProcessInJob(HANDLE process, HANDLE job, BOOL* result);

// ---- Console ----

#define CTRL_C_EVENT 0u
#define CTRL_BREAK_EVENT 1u
#define CTRL_CLOSE_EVENT 2u
#define CTRL_LOGOFF_EVENT 5u
#define CTRL_SHUTDOWN_EVENT 6u

using PHANDLER_ROUTINE = BOOL (*)(DWORD ctrlType);

// SIGINT is CTRL_C_EVENT, SIGTERM and SIGQUIT are CTRL_BREAK_EVENT, SIGHUP is CTRL_CLOSE_EVENT. Handlers run on a
// thread of this layer, the last one set first, until one gives TRUE. If none does, the process dies by the signal. A
// signal that was ignored when the program started stays ignored.
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);
// Reaches the group of a child that was started with CREATE_NEW_PROCESS_GROUP, as SIGINT for CTRL_C_EVENT and SIGTERM
// for CTRL_BREAK_EVENT; with group 0 the caller's own. FALSE for everything else: a tool in a job can't be asked to
// end.
BOOL GenerateConsoleCtrlEvent(DWORD ctrlEvent, DWORD processGroupId);

// ---- Environment ----

DWORD GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size);
// Seen by getenv and by children too. A null value removes the variable.
BOOL SetEnvironmentVariableA(LPCSTR name, LPCSTR value);
LPSTR GetEnvironmentStrings();
BOOL FreeEnvironmentStringsA(LPSTR block);
DWORD ExpandEnvironmentStringsA(LPCSTR source, LPSTR destination, DWORD size);

// ---- Error texts ----

#define FORMAT_MESSAGE_ALLOCATE_BUFFER 0x00000100u
#define FORMAT_MESSAGE_IGNORE_INSERTS 0x00000200u
#define FORMAT_MESSAGE_FROM_SYSTEM 0x00001000u
#define LANG_NEUTRAL 0x00
#define SUBLANG_DEFAULT 0x01
#define MAKELANGID(primary, sub) ((static_cast<WORD>(sub) << 10) | static_cast<WORD>(primary))

// Only texts of the system; they end in "\r\n". With FORMAT_MESSAGE_ALLOCATE_BUFFER the buffer is for LocalFree.
DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPSTR buffer, DWORD size,
                     void* arguments);

// ---- Version information ----

struct VS_FIXEDFILEINFO {
  DWORD dwSignature;
  DWORD dwStrucVersion;
  DWORD dwFileVersionMS;
  DWORD dwFileVersionLS;
  DWORD dwProductVersionMS;
  DWORD dwProductVersionLS;
  DWORD dwFileFlagsMask;
  DWORD dwFileFlags;
  DWORD dwFileOS;
  DWORD dwFileType;
  DWORD dwFileSubtype;
  DWORD dwFileDateMS;
  DWORD dwFileDateLS;
};

// Out of the note that the build puts into its programs. 0 with ERROR_RESOURCE_TYPE_NOT_FOUND for a file without one.
DWORD GetFileVersionInfoSizeA(LPCSTR fileName, LPDWORD handle);
BOOL GetFileVersionInfoA(LPCSTR fileName, DWORD handle, DWORD size, LPVOID data);
// Only the root block, "\".
BOOL VerQueryValueA(LPCVOID block, LPCSTR subBlock, LPVOID* buffer, UINT* length);

#endif  // KESTRUN_PLATFORM_API_PROCESS_API_H_
