#include "runtime/base/error_text.h"

#include "platform/win32.h"

namespace kestrun {

std::string GetErrorText(u32 errorCode) {
  // The system allocates the text. Its inserts (%1) stay as they are, since their values are not known here.
  char* buffer = nullptr;
  const DWORD length = FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, errorCode,
      MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&buffer), 0, nullptr);
  if (length == 0) return std::string();
  std::string text(buffer, length);
  LocalFree(buffer);
  return text;
}

}  // namespace kestrun
