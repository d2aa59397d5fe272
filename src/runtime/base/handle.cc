#include "runtime/base/handle.h"

namespace kestrun {

bool CloseQuietly(HANDLE handle) {
  DWORD error = GetLastError();
  if (!CloseHandle(handle)) return false;
  SetLastError(error);
  return true;
}

}  // namespace kestrun
