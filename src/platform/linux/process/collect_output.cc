// CollectOutput: one thread waits for a tool's outputs and for its end at once, and reads both outputs to their end. A
// thread for each pipe would cost two thread starts and several switches for a tool that often runs for milliseconds.
//
// The thread polls the pipes and, in the reaper's place, the supervisor's socket, so that the tool's end does not have
// to travel through the reaper's thread. A pipe is at its end when a read gives nothing, or when the tool has ended and
// what was in the pipe at that moment is read; waiting for the end of the pipe alone would wait for every process that
// the tool has left behind. If the reaper is serving the child at this moment, the child stays with the reaper. The
// tool's end is then learnt from its exit notice; if no descriptor can be had for the notice, the notice is polled.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "platform/child_io.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/process/child_process.h"
#include "platform/linux/process/pipe.h"

namespace kestrun::platform {
namespace {

constexpr DWORD kMaxOutputs = 2;
constexpr DWORD kBufferSize = 64 * 1024;
// A pipe whose writer has filled it once is enlarged to this size, so that the two sides wait for one another less
// often. It is still read in pieces of kBufferSize, because a writer waits while a read goes on. Other pipes stay
// small, because the kernel limits what all pipes of a user hold together.
constexpr DWORD kLargePipe = 256 * 1024;

class Collector {
 public:
  explicit Collector(std::shared_ptr<ChildProcess> child) : child_(std::move(child)), reports_(child_->TakeOver()) {}
  ~Collector() {
    if (reports_ >= 0) child_->GiveBack();
  }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  bool Add(const ChildOutput& output) {
    pipes_[count_] = LookUp<FileObject>(output.pipe);
    if (!dynamic_cast<PipeReadEnd*>(pipes_[count_].get())) return false;
    sinks_[count_++] = output.sink;
    return true;
  }

  DWORD Run(const Deadline& deadline) {
    while (!child_->IsSignalled()) {
      // poll ignores negative descriptors. An exit notice without a descriptor is polled: the wait below is cut into
      // slices.
      const int notice = reports_ >= 0 ? reports_ : child_->exitNotice()->Descriptor();
      pollfd wait[1 + kMaxOutputs] = {{notice, POLLIN, 0}};
      for (DWORD i = 0; i < count_; ++i) wait[1 + i] = {isAtEnd_[i] ? -1 : pipes_[i]->Descriptor(), POLLIN, 0};
      const Deadline until = notice >= 0 ? deadline : deadline.Or(Deadline::After(kExitPollMs));
      const timespec left = until.Left();
      ppoll(wait, 1 + count_, until.IsNever() ? nullptr : &left, nullptr);
      for (DWORD i = 0; i < count_; ++i) {
        if (wait[1 + i].revents != 0 && !PassOn(i)) isAtEnd_[i] = true;
      }
      if (reports_ >= 0 && wait[0].revents != 0 && !child_->ServeReport()) reports_ = -1;
      // Checked after each round and not only after an idle wait, so that the limit also holds for a child that never
      // stops writing.
      if (deadline.HasPassed() && !child_->IsSignalled()) return WAIT_TIMEOUT;
    }
    // The tool may have written between the last read and its end.
    for (DWORD i = 0; i < count_; ++i) PassWhatIsThere(i);
    return WAIT_OBJECT_0;
  }

 private:
  // Reads what is in the pipe now, which contains all that the child wrote, since it has ended. It does not read until
  // the pipe is empty, because a descendant of the child may keep writing.
  void PassWhatIsThere(DWORD i) {
    int left = 0;
    if (ioctl(pipes_[i]->Descriptor(), FIONREAD, &left) != 0) return;
    while (left > 0) {
      const DWORD count = Pass(i, std::min(static_cast<DWORD>(left), kBufferSize));
      if (count == 0) return;
      left -= static_cast<int>(count);
    }
  }

  bool PassOn(DWORD i) {
    const DWORD count = Pass(i, kBufferSize);
    // A read of 64 KiB found the pipe full, since that is the default size of a pipe.
    if (count == kBufferSize && !isLarge_[i]) {
      fcntl(pipes_[i]->Descriptor(), F_SETPIPE_SZ, kLargePipe);
      isLarge_[i] = true;
    }
    return count > 0;
  }

  // Passes the result of one read to the sink; gives its size, 0 at the end.
  DWORD Pass(DWORD i, DWORD most) {
    char buffer[kBufferSize];
    char* const room = isLarge_[i] ? sinks_[i]->MakeRoom(most) : nullptr;
    char* const target = room != nullptr ? room : buffer;
    DWORD count = 0;
    if (!pipes_[i]->FileObject::Read(target, most, &count) || count == 0) return 0;
    sinks_[i]->Take(target, count);
    return count;
  }

  const std::shared_ptr<ChildProcess> child_;
  int reports_;  // -1 if the reaper serves the child, or no more reports come
  std::shared_ptr<FileObject> pipes_[kMaxOutputs];
  OutputSink* sinks_[kMaxOutputs] = {};
  bool isAtEnd_[kMaxOutputs] = {};
  bool isLarge_[kMaxOutputs] = {};
  DWORD count_ = 0;
};

}  // namespace

DWORD CollectOutput(HANDLE process, const ChildOutput* outputs, DWORD count, DWORD timeoutMs) {
  const std::shared_ptr<ChildProcess> child = std::dynamic_pointer_cast<ChildProcess>(LookUp<ProcessObject>(process));
  if (child && count <= kMaxOutputs) {
    Collector collector(child);
    if (std::all_of(outputs, outputs + count, [&](const ChildOutput& output) { return collector.Add(output); })) {
      return collector.Run(Deadline::After(timeoutMs));
    }
  }
  SetLastError(ERROR_NOT_SUPPORTED);
  return WAIT_FAILED;
}

}  // namespace kestrun::platform
