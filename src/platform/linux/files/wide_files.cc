// The W forms of the file calls: they convert the names and call the A forms.
#include <algorithm>
#include <climits>
#include <cwchar>
#include <string>

#include "platform/api/file_api.h"
#include "platform/linux/base/wide_text.h"

namespace kestrun::platform {

namespace {

// Converts a name for the A forms; false with ERROR_INVALID_NAME.
bool NarrowName(const WCHAR* wide, std::string& name) {
  if (wide != nullptr && Narrow(wide, name)) return true;
  SetLastError(ERROR_INVALID_NAME);
  return false;
}

DWORD GiveText(const std::wstring& text, WCHAR* buffer, DWORD size) {
  if (text.size() >= size || buffer == nullptr) return static_cast<DWORD>(text.size() + 1);
  std::copy_n(text.c_str(), text.size() + 1, buffer);
  return static_cast<DWORD>(text.size());
}

// Runs `get(size, buffer)` of an A form with room for any name, and hands the result out as wide text.
template <class Get>
DWORD GiveWide(Get get, WCHAR* buffer, DWORD size) {
  std::string narrow(PATH_MAX, '\0');
  const DWORD length = get(static_cast<DWORD>(narrow.size()), narrow.data());
  if (length == 0) return 0;
  if (length >= narrow.size()) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return 0;
  }
  narrow.resize(length);
  return GiveText(Widen(narrow), buffer, size);
}

void WidenFindData(const WIN32_FIND_DATAA& narrow, WIN32_FIND_DATAW& wide) {
  wide = {narrow.dwFileAttributes,
          narrow.ftCreationTime,
          narrow.ftLastAccessTime,
          narrow.ftLastWriteTime,
          narrow.nFileSizeHigh,
          narrow.nFileSizeLow,
          {},
          {}};
  GiveText(Widen(narrow.cFileName), wide.cFileName, MAX_PATH);
}

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateFileW(const WCHAR* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flagsAndAttributes, HANDLE templateFile) {
  std::string narrow;
  if (!NarrowName(name, narrow)) return INVALID_HANDLE_VALUE;
  return CreateFileA(narrow.c_str(), access, share, security, disposition, flagsAndAttributes, templateFile);
}

BOOL DeleteFileW(const WCHAR* name) {
  std::string narrow;
  return NarrowName(name, narrow) && DeleteFileA(narrow.c_str());
}

BOOL CreateDirectoryW(const WCHAR* name, SECURITY_ATTRIBUTES* security) {
  std::string narrow;
  return NarrowName(name, narrow) && CreateDirectoryA(narrow.c_str(), security);
}

BOOL RemoveDirectoryW(const WCHAR* name) {
  std::string narrow;
  return NarrowName(name, narrow) && RemoveDirectoryA(narrow.c_str());
}

BOOL GetFileAttributesExW(const WCHAR* name, GET_FILEEX_INFO_LEVELS level, LPVOID info) {
  std::string narrow;
  return NarrowName(name, narrow) && GetFileAttributesExA(narrow.c_str(), level, info);
}

DWORD GetFileAttributesW(const WCHAR* name) {
  std::string narrow;
  return NarrowName(name, narrow) ? GetFileAttributesA(narrow.c_str()) : INVALID_FILE_ATTRIBUTES;
}

HANDLE FindFirstFileW(const WCHAR* pattern, WIN32_FIND_DATAW* data) {
  std::string narrow;
  WIN32_FIND_DATAA found;
  if (!NarrowName(pattern, narrow)) return INVALID_HANDLE_VALUE;
  const HANDLE find = FindFirstFileA(narrow.c_str(), &found);
  if (find != INVALID_HANDLE_VALUE) WidenFindData(found, *data);
  return find;
}

BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) {
  WIN32_FIND_DATAA found;
  if (!FindNextFileA(find, &found)) return FALSE;
  WidenFindData(found, *data);
  return TRUE;
}

DWORD GetCurrentDirectoryW(DWORD size, WCHAR* buffer) {
  return GiveWide(GetCurrentDirectoryA, buffer, size);
}

DWORD GetFullPathNameW(const WCHAR* name, DWORD size, WCHAR* buffer, WCHAR** filePart) {
  std::string narrow;
  if (!NarrowName(name, narrow)) return 0;
  const auto get = [&narrow](DWORD room, LPSTR text) { return GetFullPathNameA(narrow.c_str(), room, text, nullptr); };
  const DWORD length = GiveWide(get, buffer, size);
  if (filePart != nullptr && length != 0 && length < size) {
    WCHAR* const leaf = std::wcsrchr(buffer, L'/') + 1;
    *filePart = *leaf != L'\0' ? leaf : nullptr;
  }
  return length;
}

DWORD GetLongPathNameW(const WCHAR* name, WCHAR* buffer, DWORD size) {
  std::string narrow;
  if (!NarrowName(name, narrow)) return 0;
  return GiveWide([&](DWORD room, LPSTR text) { return GetLongPathNameA(narrow.c_str(), text, room); }, buffer, size);
}

DWORD GetShortPathNameW(const WCHAR* name, WCHAR* buffer, DWORD size) {
  return GetLongPathNameW(name, buffer, size);
}

DWORD QueryDosDeviceW(const WCHAR*, WCHAR*, DWORD size) {
  return QueryDosDeviceA(nullptr, nullptr, size);
}
