// Folders, and the calls that turn one name into another.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/api/file_api.h"
#include "platform/linux/files/file_names.h"
#include "platform/linux/files/file_status.h"

namespace kestrun::platform {

namespace {

// The contract of calls that give a text: its length, or the size that is needed if it does not fit.
DWORD GiveText(const std::string& text, LPSTR buffer, DWORD size) {
  if (text.size() >= size || buffer == nullptr) return static_cast<DWORD>(text.size() + 1);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<DWORD>(text.size());
}

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

DWORD GiveNameOnDisk(LPCSTR name, LPSTR buffer, DWORD size) {
  const std::string found = NameOnDisk(SystemName(name));
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileStatus(found, data)) {
    Fail(NameError(found, errno));
    return 0;
  }
  return GiveText(found, buffer, size);
}

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL CreateDirectoryA(LPCSTR name, SECURITY_ATTRIBUTES*) {
  const std::string folder = SystemName(name);
  if (mkdir(folder.c_str(), 0700) == 0) return TRUE;
  if (errno == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
  return Fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : NameError(folder, errno));
}

BOOL RemoveDirectoryA(LPCSTR name) {
  std::string folder = SystemName(name);
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  if (rmdir(folder.c_str()) == 0) return TRUE;
  if (errno == ENOTEMPTY || errno == EEXIST) return Fail(ERROR_DIR_NOT_EMPTY);
  if (errno != ENOTDIR) return Fail(NameError(folder, errno));
  struct stat info;
  if (lstat(folder.c_str(), &info) != 0) return Fail(NameError(folder, errno));
  // Windows removes a link to a folder by RemoveDirectory, so the link itself is unlinked here.
  const bool leadsToFolder = S_ISLNK(info.st_mode) && stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  if (!leadsToFolder) return Fail(ERROR_DIRECTORY);
  return unlink(folder.c_str()) == 0 ? TRUE : Fail(Win32ErrorFromErrno(errno));
}

DWORD GetCurrentDirectoryA(DWORD size, LPSTR buffer) {
  const std::string current = CurrentDirectory();
  if (!current.empty()) return GiveText(current, buffer, size);
  SetLastError(Win32ErrorFromErrno(errno));
  return 0;
}

BOOL SetCurrentDirectoryA(LPCSTR name) {
  const std::string folder = SystemName(name);
  if (chdir(folder.c_str()) == 0) return TRUE;
  return Fail(errno == ENOTDIR ? ERROR_DIRECTORY : NameError(folder, errno));
}

DWORD GetFullPathNameA(LPCSTR name, DWORD size, LPSTR buffer, LPSTR* filePart) {
  if (name == nullptr || *name == '\0') {
    SetLastError(ERROR_INVALID_NAME);
    return 0;
  }
  const std::string full = LexicalFullPath(SystemName(name), CurrentDirectory());
  const DWORD length = GiveText(full, buffer, size);
  if (filePart != nullptr && length < size) {
    char* const leaf = std::strrchr(buffer, '/') + 1;
    *filePart = *leaf != '\0' ? leaf : nullptr;
  }
  return length;
}

DWORD GetLongPathNameA(LPCSTR name, LPSTR buffer, DWORD size) {
  return GiveNameOnDisk(name, buffer, size);
}

DWORD GetShortPathNameA(LPCSTR name, LPSTR buffer, DWORD size) {
  return GiveNameOnDisk(name, buffer, size);
}

DWORD GetTempPathA(DWORD size, LPSTR buffer) {
  const char* const given = std::getenv("TMPDIR");
  std::string folder = given != nullptr && *given != '\0' ? SystemName(given) : "/tmp";
  if (folder.back() != '/') folder += '/';
  return GiveText(folder, buffer, size);
}

DWORD QueryDosDeviceA(LPCSTR, LPSTR, DWORD) {
  SetLastError(ERROR_FILE_NOT_FOUND);
  return 0;
}
