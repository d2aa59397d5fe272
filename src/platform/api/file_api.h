// Files, folders and file names under their Win32 names.
//
// Every call takes both separators and turns "\" into "/"; texts that go back to the caller use "/". There are no drive
// letters: a rooted name starts at "/". A name that ends in ".exe" also means the executable file without that ending,
// where no file bears the exact name; GetLongPathNameA gives the name as it stands on disk.
//
// Sharing: an open without any sharing excludes every other open by this layer of the same file, in any process, and
// the other way round (ERROR_SHARING_VIOLATION); a file that the layer has open can't be deleted. Opens that share
// anything do not exclude one another, whatever they share. Programs that don't use this layer are not excluded.
//
// What the calls make is closed to other users: files 0600, folders 0700.
//
// The W forms take wchar_t text and convert it to UTF-8; text that can't be converted fails with ERROR_INVALID_NAME.
#ifndef KESTRUN_PLATFORM_API_FILE_API_H_
#define KESTRUN_PLATFORM_API_FILE_API_H_

#include <strings.h>

#include <cwchar>

#include "platform/api/base_api.h"
#include "platform/api/time_api.h"

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u

#define FILE_SHARE_READ 0x1u
#define FILE_SHARE_WRITE 0x2u
#define FILE_SHARE_DELETE 0x4u

#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u

#define FILE_ATTRIBUTE_READONLY 0x1u
#define FILE_ATTRIBUTE_HIDDEN 0x2u
#define FILE_ATTRIBUTE_DIRECTORY 0x10u
#define FILE_ATTRIBUTE_ARCHIVE 0x20u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_ATTRIBUTE_TEMPORARY 0x100u
// Set, beside what the target is, for a symbolic link.
#define FILE_ATTRIBUTE_REPARSE_POINT 0x400u
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu

// Accepted without effect: one write is one system call, and what other processes see doesn't depend on the disk.
#define FILE_FLAG_WRITE_THROUGH 0x80000000u

#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu
#define INVALID_FILE_SIZE 0xFFFFFFFFu

#define MOVEFILE_REPLACE_EXISTING 0x1u
#define MOVEFILE_COPY_ALLOWED 0x2u

struct OVERLAPPED;

enum GET_FILEEX_INFO_LEVELS { GetFileExInfoStandard };

// Creation time: the file system's own where it keeps one, else the time of the last change.
struct WIN32_FILE_ATTRIBUTE_DATA {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
};

struct WIN32_FIND_DATAA {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  CHAR cFileName[MAX_PATH];
  CHAR cAlternateFileName[14];
};

struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  WCHAR cFileName[MAX_PATH];
  WCHAR cAlternateFileName[14];
};

// INVALID_HANDLE_VALUE on failure. OPEN_ALWAYS and CREATE_ALWAYS leave ERROR_ALREADY_EXISTS when the file was there.
HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);
HANDLE CreateFileW(const WCHAR* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);

// Files and pipes. ReadFile gives 0 bytes at the end of a file and ERROR_BROKEN_PIPE at the end of a pipe. `overlapped`
// must be null.
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD read, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD written, OVERLAPPED* overlapped);
DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD method);
BOOL SetEndOfFile(HANDLE file);
BOOL FlushFileBuffers(HANDLE file);
DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh);
BOOL GetFileTime(HANDLE file, FILETIME* creation, FILETIME* access, FILETIME* write);

BOOL DeleteFileA(LPCSTR name);
BOOL DeleteFileW(const WCHAR* name);
BOOL MoveFileExA(LPCSTR from, LPCSTR to, DWORD flags);
BOOL CreateDirectoryA(LPCSTR name, SECURITY_ATTRIBUTES* security);
BOOL CreateDirectoryW(const WCHAR* name, SECURITY_ATTRIBUTES* security);
// A symbolic link to a folder is removed itself, and not what it leads to.
BOOL RemoveDirectoryA(LPCSTR name);
BOOL RemoveDirectoryW(const WCHAR* name);

// `info` is a WIN32_FILE_ATTRIBUTE_DATA. Symbolic links are followed; one that leads nowhere doesn't exist.
BOOL GetFileAttributesExA(LPCSTR name, GET_FILEEX_INFO_LEVELS level, LPVOID info);
BOOL GetFileAttributesExW(const WCHAR* name, GET_FILEEX_INFO_LEVELS level, LPVOID info);
DWORD GetFileAttributesA(LPCSTR name);
DWORD GetFileAttributesW(const WCHAR* name);

// The pattern's last component may hold "*" and "?"; "*.*" is every name. Case counts. Names come in byte order, "."
// and ".." among them. A folder is read whole by FindFirstFile, so that deleting on the way does no harm.
HANDLE FindFirstFileA(LPCSTR pattern, WIN32_FIND_DATAA* data);
BOOL FindNextFileA(HANDLE find, WIN32_FIND_DATAA* data);
HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data);
BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data);
BOOL FindClose(HANDLE find);

// The calls below give the length without its NUL or, if the buffer is too small, the size with it; 0 on failure.
DWORD GetCurrentDirectoryA(DWORD size, LPSTR buffer);
DWORD GetCurrentDirectoryW(DWORD size, WCHAR* buffer);
// Lexical: "." and ".." are removed as text, the current directory is put before a relative name, and no link is
// resolved.
DWORD GetFullPathNameA(LPCSTR name, DWORD size, LPSTR buffer, LPSTR* filePart);
DWORD GetFullPathNameW(const WCHAR* name, DWORD size, WCHAR* buffer, WCHAR** filePart);
// Both need the file to exist, and give its name as it is on disk.
DWORD GetLongPathNameA(LPCSTR name, LPSTR buffer, DWORD size);
DWORD GetLongPathNameW(const WCHAR* name, WCHAR* buffer, DWORD size);
DWORD GetShortPathNameA(LPCSTR name, LPSTR buffer, DWORD size);
DWORD GetShortPathNameW(const WCHAR* name, WCHAR* buffer, DWORD size);
// TMPDIR, else "/tmp", with a "/" at its end.
DWORD GetTempPathA(DWORD size, LPSTR buffer);
BOOL SetCurrentDirectoryA(LPCSTR name);

// There are no DOS devices: always 0 with ERROR_FILE_NOT_FOUND.
DWORD QueryDosDeviceA(LPCSTR device, LPSTR buffer, DWORD size);
DWORD QueryDosDeviceW(const WCHAR* device, WCHAR* buffer, DWORD size);

inline int _stricmp(const char* left, const char* right) {
  return strcasecmp(left, right);
}
inline int _strnicmp(const char* left, const char* right, std::size_t count) {
  return strncasecmp(left, right, count);
}
inline int _wcsicmp(const wchar_t* left, const wchar_t* right) {
  return wcscasecmp(left, right);
}

#endif  // KESTRUN_PLATFORM_API_FILE_API_H_
