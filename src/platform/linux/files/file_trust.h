// Opening files in places where other users write, or where a name may not be a file's.
//
// Opening a FIFO waits for its other end, so each file is opened without waiting and then looked at. The descriptor
// itself is asked, because another user can replace a name between a look at it and the opening.
#ifndef KESTRUN_PLATFORM_LINUX_FILES_FILE_TRUST_H_
#define KESTRUN_PLATFORM_LINUX_FILES_FILE_TRUST_H_

#include <sys/stat.h>

#include <string>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

// A file of this user or of root.
bool IsTrusted(const struct stat& info);

// True for what a read or write of can wait without end for another process: a FIFO, a socket, a block device.
bool IsNoFile(const struct stat& info);

// As open, with `flags`; for a new file with O_CREAT. EACCES for what IsNoFile, and, if it is to be trusted, for what
// is not, be it the file or a symbolic link that leads to it. Never waits.
FileDescriptor OpenFileOnly(const std::string& name, int flags, bool mustBeTrusted);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_FILES_FILE_TRUST_H_
