#include "runtime/files/delete_tree.h"

#include <vector>

#include "platform/win32.h"

namespace kestrun {

bool DeleteTree(const Path& directory) {
  bool everything = true;
  std::vector<Path> entries;
  ListDirectory(directory, "*.*", entries);
  for (const Path& entry : entries) {
    const DWORD attributes = GetFileAttributesA(entry.c_str());
    const bool isDirectory =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY)) != 0;
    if (!isDirectory) {
      everything = DeleteFileA(entry.c_str()) && everything;
      // A link is removed itself; descending would delete what it leads to.
    } else if ((attributes & static_cast<DWORD>(FILE_ATTRIBUTE_REPARSE_POINT)) != 0) {
      everything = RemoveDirectoryA(entry.c_str()) && everything;
    } else {
      everything = DeleteTree(entry) && everything;
    }
  }
  return RemoveDirectoryA(directory.c_str()) && everything;
}

}  // namespace kestrun
