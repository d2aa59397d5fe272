// Anonymous pipes, and their tie to the processes that write into them.
//
// A tool's output is complete once the tool has ended and what it wrote is read. The end of the pipe as the kernel has
// it would not do: it comes when the last holder of the write end has gone, and a daemon that the tool left behind may
// hold it for ever.
#ifndef KESTRUN_PLATFORM_LINUX_PIPE_H_
#define KESTRUN_PLATFORM_LINUX_PIPE_H_

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/linux/child_process.h"
#include "platform/linux/file_object.h"

namespace kestrun::platform {

// What the two ends of a pipe share: the children that were given the write end.
class PipeFeeders {
 public:
  void Add(std::shared_ptr<ExitNotice> feeder);
  bool IsEmpty() const;
  // One that has not ended yet; null if all have.
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

// Reads of several threads at once follow one another.
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
  // All that the children wrote is in it, as a pipe keeps the order; what comes behind is somebody else's.
  std::optional<DWORD> remaining_;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PIPE_H_
