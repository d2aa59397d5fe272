#include "runtime/base/handle.h"

namespace kestrun {

bool CloseQuietly(HANDLE handle) {
  // Only a successful close restores the error: a failed one has its own to tell.
  DWORD error = GetLastError();
  if (!CloseHandle(handle)) return false;
  SetLastError(error);
  return true;
}

}  // namespace kestrun
