// Listing folders: a find handle holds the names that fitted when it was made.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/api/file_api.h"
#include "platform/linux/base/object.h"
#include "platform/linux/files/file_names.h"
#include "platform/linux/files/file_status.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

class FindObject : public Object {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kFind;

  FindObject(std::string folder, std::vector<std::string> names)
      : Object(kKind), folder_(std::move(folder)), names_(std::move(names)) {}

  // False at the end. A file that was removed after the listing is skipped; a link that leads nowhere is listed.
  bool Next(WIN32_FIND_DATAA& data) {
    const std::lock_guard lock(mutex_);
    while (next_ < names_.size()) {
      const std::string& name = names_[next_++];
      WIN32_FILE_ATTRIBUTE_DATA status{};
      if (!GetFileStatus(folder_ + name, status)) {
        if (!IsLink(folder_ + name)) continue;
        status.dwFileAttributes = FILE_ATTRIBUTE_REPARSE_POINT;
      }
      data = {status.dwFileAttributes,
              status.ftCreationTime,
              status.ftLastAccessTime,
              status.ftLastWriteTime,
              status.nFileSizeHigh,
              status.nFileSizeLow,
              {},
              {}};
      std::memcpy(data.cFileName, name.c_str(), std::min(name.size(), sizeof data.cFileName - 1));
      return true;
    }
    return false;
  }

 private:
  static bool IsLink(const std::string& name);

  const std::string folder_;
  const std::vector<std::string> names_;
  std::mutex mutex_;
  std::size_t next_ = 0;  // guarded by mutex_
};

bool FindObject::IsLink(const std::string& name) {
  char target[1];
  return readlink(name.c_str(), target, sizeof target) >= 0;
}

// False with errno set if the folder can't be read.
bool ListNames(const std::string& folder, const std::string& pattern, std::vector<std::string>& names) {
  std::unique_ptr<DIR, DirectoryCloser> directory(opendir(folder.empty() ? "." : folder.c_str()));
  if (!directory) return false;
  while (const dirent* entry = readdir(directory.get())) {
    if (MatchesPattern(entry->d_name, pattern)) names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return true;
}

HANDLE Fail(DWORD error) {
  SetLastError(error);
  return INVALID_HANDLE_VALUE;
}

}  // namespace

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE FindFirstFileA(LPCSTR pattern, WIN32_FIND_DATAA* data) {
  const std::string whole = SystemName(pattern);
  const std::size_t leafAt = whole.rfind('/') + 1;
  std::string folder = whole.substr(0, leafAt);
  std::vector<std::string> names;
  if (!ListNames(folder, whole.substr(leafAt), names)) {
    return Fail(errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrno(errno));
  }
  auto find = std::make_shared<FindObject>(std::move(folder), std::move(names));
  if (!find->Next(*data)) return Fail(ERROR_FILE_NOT_FOUND);
  const HANDLE handle = AllocateHandle(std::move(find));
  return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

BOOL FindNextFileA(HANDLE find, WIN32_FIND_DATAA* data) {
  const auto object = LookUp<FindObject>(find);
  if (!object) return FALSE;
  if (object->Next(*data)) return TRUE;
  SetLastError(ERROR_NO_MORE_FILES);
  return FALSE;
}

BOOL FindClose(HANDLE find) {
  return LookUp<FindObject>(find) && ReleaseHandle(find);
}
