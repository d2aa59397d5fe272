#include "platform/linux/files/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/linux/files/file_names.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

FILETIME FromStatx(const statx_timestamp& time) {
  return FileTimeFromTimespec({time.tv_sec, time.tv_nsec});
}

void Fill(const struct statx& status, WIN32_FILE_ATTRIBUTE_DATA& data) {
  DWORD attributes = 0;
  if (S_ISDIR(status.stx_mode)) attributes |= FILE_ATTRIBUTE_DIRECTORY;
  if ((status.stx_mode & 0222) == 0) attributes |= FILE_ATTRIBUTE_READONLY;
  data.dwFileAttributes = attributes != 0 ? attributes : FILE_ATTRIBUTE_NORMAL;
  // Not every file system keeps the time of a file's making; the change of its inode is the nearest then.
  data.ftCreationTime = FromStatx((status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_ctime);
  data.ftLastAccessTime = FromStatx(status.stx_atime);
  data.ftLastWriteTime = FromStatx(status.stx_mtime);
  data.nFileSizeHigh = static_cast<DWORD>(status.stx_size >> 32);
  data.nFileSizeLow = static_cast<DWORD>(status.stx_size);
}

constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;

}  // namespace

bool GetFileStatus(const std::string& name, WIN32_FILE_ATTRIBUTE_DATA& data) {
  struct statx status;
  if (statx(AT_FDCWD, name.c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &status) != 0) return false;
  // A link has the status of what it leads to, and is marked as a reparse point, as on Windows.
  const bool isLink = S_ISLNK(status.stx_mode);
  if (isLink && statx(AT_FDCWD, name.c_str(), 0, kWanted, &status) != 0) return false;
  Fill(status, data);
  if (isLink) data.dwFileAttributes = (data.dwFileAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_REPARSE_POINT;
  return true;
}

bool GetFileStatus(int descriptor, WIN32_FILE_ATTRIBUTE_DATA& data) {
  struct statx status;
  if (statx(descriptor, "", AT_EMPTY_PATH, kWanted, &status) != 0) return false;
  Fill(status, data);
  return true;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL GetFileAttributesExA(LPCSTR name, GET_FILEEX_INFO_LEVELS, LPVOID info) {
  const std::string file = NameOnDisk(SystemName(name));
  if (GetFileStatus(file, *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(info))) return TRUE;
  SetLastError(NameError(file, errno));
  return FALSE;
}

DWORD GetFileAttributesA(LPCSTR name) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  return GetFileAttributesExA(name, GetFileExInfoStandard, &data) ? data.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh) {
  const auto object = LookUp<FileObject>(file);
  if (!object) return INVALID_FILE_SIZE;
  struct stat info;
  if (fstat(object->Descriptor(), &info) != 0) {
    SetLastError(Win32ErrorFromErrno(errno));
    return INVALID_FILE_SIZE;
  }
  if (sizeHigh != nullptr) *sizeHigh = static_cast<DWORD>(info.st_size >> 32);
  // The low half of a size may equal the number for failure; the last error then tells that it is no failure.
  if (static_cast<DWORD>(info.st_size) == INVALID_FILE_SIZE) SetLastError(NO_ERROR);
  return static_cast<DWORD>(info.st_size);
}

BOOL GetFileTime(HANDLE file, FILETIME* creation, FILETIME* access, FILETIME* write) {
  const auto object = LookUp<FileObject>(file);
  if (!object) return FALSE;
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileStatus(object->Descriptor(), data)) {
    SetLastError(Win32ErrorFromErrno(errno));
    return FALSE;
  }
  if (creation != nullptr) *creation = data.ftCreationTime;
  if (access != nullptr) *access = data.ftLastAccessTime;
  if (write != nullptr) *write = data.ftLastWriteTime;
  return TRUE;
}
