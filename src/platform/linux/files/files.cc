// Opening, reading, writing and deleting files.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "platform/api/file_api.h"
#include "platform/host.h"
#include "platform/linux/files/file_names.h"
#include "platform/linux/files/file_object.h"
#include "platform/linux/files/file_status.h"
#include "platform/linux/files/file_trust.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

// O_NOCTTY: opening a terminal must not make it the terminal of this process.
int OpenFlags(DWORD access) {
  const bool all = (access & GENERIC_ALL) != 0;
  const bool reads = all || (access & GENERIC_READ) != 0;
  const bool writes = all || (access & GENERIC_WRITE) != 0;
  return (writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY) | O_CLOEXEC | O_NOCTTY;
}

// How a file is to be opened; constant during one call.
struct OpenRequest {
  int flags;
  DWORD disposition;
  bool mustBeTrusted;
};

// Opens the file or makes it; `existed` tells which. It is truncated later (Settle), once it is locked, so that a file
// that another process keeps locked is not emptied.
FileDescriptor OpenByDisposition(const std::string& name, const OpenRequest& request, bool& existed) {
  const bool mayExist = request.disposition != CREATE_NEW;
  const bool mayCreate = request.disposition != OPEN_EXISTING && request.disposition != TRUNCATE_EXISTING;
  // O_CREAT without O_EXCL would not tell whether the file existed, so there are two attempts. If the file appears or
  // vanishes between them, they start again.
  for (;;) {
    existed = mayExist;
    if (mayExist) {
      FileDescriptor opened = OpenFileOnly(mayCreate ? name : NameOnDisk(name), request.flags, request.mustBeTrusted);
      if (opened || errno != ENOENT || !mayCreate) return opened;
    }
    existed = false;
    FileDescriptor made = OpenFileOnly(name, request.flags | O_CREAT | O_EXCL, false);
    if (made || errno != EEXIST || !mayExist) return made;
    // A dangling symbolic link can be neither opened nor made.
    struct stat info;
    if (lstat(name.c_str(), &info) == 0 && S_ISLNK(info.st_mode) && stat(name.c_str(), &info) != 0) return made;
  }
}

// The share modes as an advisory lock on the whole file: shared for an open that shares anything, exclusive for one
// that shares nothing. The kernel drops the lock with the descriptor, also when the process is killed.
bool LockForSharing(int descriptor, DWORD share) {
  const int mode = share == 0 ? LOCK_EX : LOCK_SH;
  int result;
  do {
    result = flock(descriptor, mode | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno != EWOULDBLOCK;  // a file system without locks shares everything
}

// Checks, locks and truncates the opened file. Gives an error number, ERROR_SUCCESS if the file can be handed out.
DWORD Settle(int descriptor, DWORD share, DWORD disposition) {
  struct stat info;
  if (fstat(descriptor, &info) != 0) return Win32ErrorFromErrno(errno);
  if (S_ISDIR(info.st_mode)) return ERROR_ACCESS_DENIED;
  if (!S_ISREG(info.st_mode)) return ERROR_SUCCESS;
  if (!LockForSharing(descriptor, share)) return ERROR_SHARING_VIOLATION;
  const bool cuts = disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING;
  if (cuts && info.st_size > 0 && ftruncate(descriptor, 0) != 0) return Win32ErrorFromErrno(errno);
  return ERROR_SUCCESS;
}

// A disk file is unlocked explicitly before it is closed. The lock belongs to the open file, and a child that another
// thread is starting has a copy of the descriptor until its exec, which would keep the file locked.
class DiskFile : public FileObject {
 public:
  using FileObject::FileObject;
  ~DiskFile() override { flock(Descriptor(), LOCK_UN); }
};

HANDLE Fail(DWORD error) {
  SetLastError(error);
  return INVALID_HANDLE_VALUE;
}

// True if a process has the file open through this layer: an exclusive lock then fails. A file that can't be opened
// counts as not open.
bool IsOpenElsewhere(const std::string& name) {
  struct stat info;
  if (lstat(name.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  FileDescriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  return file && !LockForSharing(file.get(), 0);
}

}  // namespace

DWORD NameError(const std::string& name, int error) {
  if (error != ENOENT) return error == ENOTDIR ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrno(error);
  const std::size_t leafAt = name.find_last_not_of('/');
  if (leafAt == std::string::npos) return ERROR_PATH_NOT_FOUND;
  const std::size_t separator = name.rfind('/', leafAt);
  struct stat info;
  if (separator == std::string::npos || separator == 0) return ERROR_FILE_NOT_FOUND;
  return stat(name.substr(0, separator).c_str(), &info) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD disposition, DWORD flags,
                   HANDLE) {
  if (name == nullptr || disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  const std::string file = SystemName(name);
  bool existed = false;
  FileDescriptor descriptor =
      OpenByDisposition(file, {OpenFlags(access), disposition, (flags & kRefuseFilesOfOthers) != 0}, existed);
  if (!descriptor) {
    if (errno == EEXIST) return Fail(ERROR_FILE_EXISTS);
    if (errno == EISDIR) return Fail(ERROR_ACCESS_DENIED);
    return Fail(NameError(file, errno));
  }
  const DWORD error = Settle(descriptor.get(), share, disposition);
  if (error != ERROR_SUCCESS) return Fail(error);
  const HANDLE handle = AllocateHandle(std::make_shared<DiskFile>(std::move(descriptor)));
  if (handle == nullptr) return INVALID_HANDLE_VALUE;
  const bool tells = disposition == OPEN_ALWAYS || disposition == CREATE_ALWAYS;
  SetLastError(tells && existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return handle;
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD read, OVERLAPPED*) {
  DWORD got = 0;
  const auto object = LookUp<FileObject>(file);
  const bool ok = object && object->Read(buffer, count, &got);
  if (read != nullptr) *read = got;
  return ok;
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD written, OVERLAPPED*) {
  DWORD put = 0;
  const auto object = LookUp<FileObject>(file);
  const bool ok = object && object->Write(buffer, count, &put);
  if (written != nullptr) *written = put;
  return ok;
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD method) {
  static_assert(FILE_BEGIN == SEEK_SET && FILE_CURRENT == SEEK_CUR && FILE_END == SEEK_END);
  const auto object = LookUp<FileObject>(file);
  if (!object) return INVALID_SET_FILE_POINTER;
  // Without a high part the distance is a signed number, except from the beginning of the file; with one it is the low
  // half of a signed 64-bit number.
  std::int64_t offset = distance;
  if (distanceHigh != nullptr) {
    offset = static_cast<std::int64_t>((static_cast<std::uint64_t>(static_cast<DWORD>(*distanceHigh)) << 32) |
                                       static_cast<DWORD>(distance));
  } else if (method == FILE_BEGIN) {
    offset = static_cast<DWORD>(distance);
  }
  const off_t position = lseek(object->Descriptor(), offset, static_cast<int>(method));
  if (position < 0) {
    SetLastError(errno == ESPIPE ? ERROR_INVALID_FUNCTION : Win32ErrorFromErrno(errno));
    return INVALID_SET_FILE_POINTER;
  }
  if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(position >> 32);
  if (static_cast<DWORD>(position) == INVALID_SET_FILE_POINTER) SetLastError(NO_ERROR);
  return static_cast<DWORD>(position);
}

BOOL SetEndOfFile(HANDLE file) {
  const auto object = LookUp<FileObject>(file);
  if (!object) return FALSE;
  const off_t position = lseek(object->Descriptor(), 0, SEEK_CUR);
  if (position >= 0 && ftruncate(object->Descriptor(), position) == 0) return TRUE;
  SetLastError(Win32ErrorFromErrno(errno));
  return FALSE;
}

BOOL FlushFileBuffers(HANDLE file) {
  const auto object = LookUp<FileObject>(file);
  if (!object) return FALSE;
  // EINVAL: a pipe or device, where there is nothing to flush.
  if (fsync(object->Descriptor()) == 0 || errno == EINVAL) return TRUE;
  SetLastError(Win32ErrorFromErrno(errno));
  return FALSE;
}

BOOL DeleteFileA(LPCSTR name) {
  const std::string file = SystemName(name);
  if (IsOpenElsewhere(file)) {
    SetLastError(ERROR_SHARING_VIOLATION);
    return FALSE;
  }
  if (unlink(file.c_str()) == 0) return TRUE;
  SetLastError(errno == EISDIR || errno == EPERM ? ERROR_ACCESS_DENIED : NameError(file, errno));
  return FALSE;
}

BOOL MoveFileExA(LPCSTR from, LPCSTR to, DWORD flags) {
  const std::string source = SystemName(from);
  const std::string target = SystemName(to);
  const bool replaces = (flags & MOVEFILE_REPLACE_EXISTING) != 0;
  // Without the flag for replacing, the test for the target and the rename must be one step.
  const unsigned mode = replaces ? 0 : static_cast<unsigned>(RENAME_NOREPLACE);
  if (renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), mode) == 0) return TRUE;
  SetLastError(errno == EEXIST ? ERROR_ALREADY_EXISTS : NameError(source, errno));
  return FALSE;
}
