#include <cerrno>

#include "platform/api/base_api.h"

namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

}  // namespace

DWORD GetLastError() {
  return lastError;
}

void SetLastError(DWORD error) {
  lastError = error;
}

namespace kestrun::platform {

// The general mapping. Calls whose contract names another number for a case (such as 267 for a working directory) look
// at errno themselves first.
DWORD Win32ErrorFromErrno(int error) {
  switch (error) {
    case 0:
      return ERROR_SUCCESS;
    case ENOENT:
      return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP:
      return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      return ERROR_ACCESS_DENIED;
    case EMFILE:
    case ENFILE:
      return ERROR_TOO_MANY_OPEN_FILES;
    case EBADF:
      return ERROR_INVALID_HANDLE;
    case ENOMEM:
    case EAGAIN:
      return ERROR_NOT_ENOUGH_MEMORY;
    case ETXTBSY:
    case EBUSY:
      return ERROR_SHARING_VIOLATION;
    case EEXIST:
      return ERROR_ALREADY_EXISTS;
    case ENOTEMPTY:
      return ERROR_DIR_NOT_EMPTY;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return ERROR_DISK_FULL;
    case EPIPE:
      return ERROR_NO_DATA;
    case EINVAL:
      return ERROR_INVALID_PARAMETER;
    case ENAMETOOLONG:
    case E2BIG:
      return ERROR_FILENAME_EXCED_RANGE;
    case ENOEXEC:
      return ERROR_BAD_EXE_FORMAT;
    case ENOSYS:
    case EOPNOTSUPP:
      return ERROR_NOT_SUPPORTED;
    default:
      return 31;
  }
}

}  // namespace kestrun::platform
