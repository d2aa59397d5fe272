// Anonymous pipes, and their tie to the processes that write into them.
//
// A tool's output is complete once the tool has ended and what it wrote is read. The kernel reports the end of a pipe
// only when the last holder of the write end has gone, and a daemon that the tool left behind may hold it for ever.
//
// An end is owned by its handles, and the write end by each child that it was given to, until the child has ended. All
// functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_PIPE_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_PIPE_H_

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/linux/files/file_object.h"
#include "platform/linux/process/exit_notice.h"

namespace kestrun::platform {

// What the two ends of a pipe share: the children that were given the write end.
class PipeFeeders {
 public:
  void Add(std::shared_ptr<ExitNotice> feeder);
  bool IsEmpty() const;
  // The notice of a child that has not ended yet; null if all have.
  std::shared_ptr<ExitNotice> Running() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<ExitNotice>> feeders_;  // guarded by mutex_
};

class PipeWriteEnd : public FileObject {
 public:
  PipeWriteEnd(FileDescriptor descriptor, std::shared_ptr<PipeFeeders> feeders)
      : FileObject(std::move(descriptor)), feeders_(std::move(feeders)) {}

  PipeFeeders& feeders() { return *feeders_; }

 private:
  const std::shared_ptr<PipeFeeders> feeders_;
};

// Read blocks until there is data or all children have ended. Reads of several threads follow one another.
class PipeReadEnd : public FileObject {
 public:
  PipeReadEnd(FileDescriptor descriptor, std::shared_ptr<PipeFeeders> feeders)
      : FileObject(std::move(descriptor)), feeders_(std::move(feeders)) {}

  bool Read(void* buffer, DWORD count, DWORD* read) override;
  bool Peek(void* buffer, DWORD size, DWORD* read, DWORD* available) override;

 private:
  void AwaitDataOrEnd();

  const std::shared_ptr<PipeFeeders> feeders_;
  std::mutex readMutex_;
  // Guarded by readMutex_: what was in the pipe when the last child was seen to have ended, less what was read since.
  // It contains all that the children wrote, as a pipe keeps the order; what comes later is of their descendants.
  std::optional<DWORD> remaining_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_PIPE_H_
