#include "platform/linux/process/std_handles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <mutex>

#include "platform/api/process_api.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/process/pipe.h"

namespace kestrun::platform {
namespace {

class StandardHandles {
 public:
  // Null if the stream is closed. The handle is made by the first call, since most processes never ask for theirs.
  HANDLE Get(int stream) {
    const std::lock_guard lock(mutex_);
    Entry& entry = entries_[stream];
    if (!entry.asked) {
      entry.asked = true;
      if (fcntl(stream, F_GETFD) >= 0) {
        entry.inherited = Open(stream);
        entry.handle = AllocateHandle(entry.inherited);
      }
    }
    return entry.handle;
  }

  void Set(int stream, HANDLE handle) {
    const std::lock_guard lock(mutex_);
    entries_[stream].asked = true;
    entries_[stream].handle = handle;
  }

 private:
  struct Entry {
    bool asked = false;
    HANDLE handle = nullptr;
    // Kept until the process ends, even if the handle is closed: closing the descriptor would break the C library's
    // streams.
    std::shared_ptr<FileObject> inherited;
  };

  static std::shared_ptr<FileObject> Open(int stream) {
    struct stat info = {};
    // A pipe from outside has no known writers; its end is the end of the pipe.
    const bool isPipe = fstat(stream, &info) == 0 && S_ISFIFO(info.st_mode);
    if (isPipe) return std::make_shared<PipeReadEnd>(FileDescriptor(stream), std::make_shared<PipeFeeders>());
    return std::make_shared<FileObject>(FileDescriptor(stream));
  }

  std::mutex mutex_;
  Entry entries_[3];  // guarded by mutex_
};

StandardHandles& Handles() {
  static NeverDestroyed<StandardHandles> handles;
  return handles.get();
}

// 0 to 2, or -1 with the last error for what is none of the three.
int StreamOf(DWORD which) {
  // The three constants are -10, -11 and -12.
  const DWORD stream = STD_INPUT_HANDLE - which;
  if (stream <= 2) return static_cast<int>(stream);
  SetLastError(ERROR_INVALID_HANDLE);
  return -1;
}

}  // namespace

std::shared_ptr<FileObject> StandardStream(int stream) {
  const HANDLE handle = Handles().Get(stream);
  return handle != nullptr ? LookUp<FileObject>(handle) : nullptr;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE GetStdHandle(DWORD which) {
  const int stream = StreamOf(which);
  return stream >= 0 ? Handles().Get(stream) : INVALID_HANDLE_VALUE;
}

BOOL SetStdHandle(DWORD which, HANDLE handle) {
  const int stream = StreamOf(which);
  if (stream < 0) return FALSE;
  Handles().Set(stream, handle);
  return TRUE;
}

DWORD GetFileType(HANDLE handle) {
  const std::shared_ptr<FileObject> file = LookUp<FileObject>(handle);
  struct stat info;
  if (!file || fstat(file->Descriptor(), &info) != 0) return FILE_TYPE_UNKNOWN;
  // FILE_TYPE_UNKNOWN is also the answer on failure; the last error tells the two apart.
  SetLastError(ERROR_SUCCESS);
  if (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISBLK(info.st_mode)) return FILE_TYPE_DISK;
  if (S_ISCHR(info.st_mode)) return FILE_TYPE_CHAR;
  return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) ? FILE_TYPE_PIPE : FILE_TYPE_UNKNOWN;
}

BOOL SetHandleInformation(HANDLE object, DWORD, DWORD) {
  return LookUpObject(object) != nullptr;
}
