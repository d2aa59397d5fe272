// Types, constants and the last error of the Win32 names that this layer provides.
//
// HANDLE holds a small index into a table of the process, so that it survives a cast to int and back. Text is bytes;
// no call of this layer looks at an encoding.
#ifndef KESTRUN_PLATFORM_API_BASE_API_H_
#define KESTRUN_PLATFORM_API_BASE_API_H_

#include <cstddef>
#include <cstdint>

using BOOL = int;
using BYTE = unsigned char;
using UCHAR = unsigned char;
using WORD = unsigned short;
using USHORT = unsigned short;
using SHORT = short;
using INT = int;
using UINT = unsigned int;
// 32 bits wide everywhere, as on Windows, where long is.
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using LONGLONG = long long;
using ULONGLONG = unsigned long long;
using DWORD64 = unsigned long long;
using SIZE_T = std::size_t;
using DWORD_PTR = std::uintptr_t;
using ULONG_PTR = std::uintptr_t;
using PDWORD_PTR = DWORD_PTR*;
using HANDLE = void*;
using HMODULE = void*;
using HINSTANCE = void*;
using HLOCAL = void*;
using LPVOID = void*;
using PVOID = void*;
using LPCVOID = const void*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPDWORD = DWORD*;
using LPBYTE = BYTE*;
using CHAR = char;
using WCHAR = wchar_t;
using NTSTATUS = LONG;
// The type of GetProcAddress's result, which the caller casts to the real signature.
using FARPROC = long long (*)();

#define WINAPI
#define CALLBACK
#define NTAPI

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFu
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1)))

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};

// bInheritHandle and the descriptor are accepted and have no effect: no object of this layer is inherited by a child,
// and everything that it makes is closed to other users.
struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

// The numbers are Windows' own, since the program prints and compares them.
#define ERROR_SUCCESS 0u
#define NO_ERROR 0u
#define ERROR_INVALID_FUNCTION 1u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_NO_MORE_FILES 18u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_HANDLE_EOF 38u
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_BROKEN_PIPE 109u
#define ERROR_DISK_FULL 112u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_MOD_NOT_FOUND 126u
#define ERROR_PROC_NOT_FOUND 127u
#define ERROR_DIR_NOT_EMPTY 145u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_BAD_EXE_FORMAT 193u
#define ERROR_ENVVAR_NOT_FOUND 203u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_NO_DATA 232u
#define WAIT_TIMEOUT 258u
#define ERROR_DIRECTORY 267u
#define ERROR_NOT_OWNER 288u
#define ERROR_TOO_MANY_POSTS 298u
#define ERROR_NO_SYSTEM_RESOURCES 1450u
#define ERROR_TIMEOUT 1460u
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813u

// The last error: one value for each thread. Successful calls leave it alone unless those of Windows set it.
DWORD GetLastError();
void SetLastError(DWORD error);

namespace kestrun::platform {

// The Win32 error for an errno value; 31 (a device that does not work) for one without a better match.
DWORD Win32ErrorFromErrno(int error);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_API_BASE_API_H_
