// The folder in which the user's processes find one another's named objects.
//
// It is KESTRUN_OBJECT_DIR if that is set, else kestrun-<user id> in /dev/shm, or in the temporary folder if that can't
// be made. The folder is made with mode 0700. A folder that is a link, belongs to another user or is open to others is
// refused: no object is made in it, and one line on the standard error stream names the folder and the cause.
//
// Chosen once a process. All functions may be called from any thread; failures are -1 with the last error set.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_FOLDER_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_FOLDER_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

inline constexpr char kFolderVariable[] = "KESTRUN_OBJECT_DIR";
// Where the folder is without the variable: the user's id stands behind this.
inline constexpr char kUsualFolder[] = "/dev/shm/kestrun-";

// Of a folder's lstat: whether objects may be made in it.
inline bool IsPrivateFolder(const struct stat& status, uid_t user) {
  return S_ISDIR(status.st_mode) && status.st_uid == user && (status.st_mode & 0777) == 0700;
}

// A descriptor of the folder for the *at calls; never closed. -1 with the last error.
int ObjectFolderDescriptor();

// Opens a file of the folder with O_RDWR, O_CLOEXEC and `flags`. When the folder has been removed meanwhile and O_CREAT
// is given, it is made again.
FileDescriptor OpenObjectFile(const std::string& leaf, int flags);

// The folder's path; empty, with the last error set, if it can't be used.
std::string ObjectFolderPath();

// A line on the standard error stream that names the folder and says why it can't serve; the first cause only.
void ReportUnusableFolder(const std::string& cause);

// Sets the last error from an errno value, and reports the folder as unusable if the error says that the folder has no
// room, or the process no memory or descriptors to use it.
// Always false.
bool FailInFolder(int error);

// Gives the file room for `size` bytes from `offset` on and takes the memory for them now, so that a full file system
// is an error here and not a fatal signal at a later store. 0 or an errno value.
int ReserveSpace(int fd, std::uint64_t offset, std::uint64_t size);

void RemoveObjectFile(const std::string& leaf);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_OBJECT_FOLDER_H_
