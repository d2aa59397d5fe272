#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "platform/child_io.h"
#include "platform/linux/child_process.h"
#include "platform/linux/handle_table.h"
#include "platform/linux/pipe.h"

namespace kestrun::platform {
namespace {

constexpr DWORD kMaxOutputs = 2;
constexpr DWORD kBufferSize = 64 * 1024;
// What a pipe may hold whose writer has filled it: the two sides then meet less often. It is still read in smaller
// pieces, since nobody can write while a read goes on. All pipes of a user together have a limit, so others keep the
// size that they have.
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
      // A number below 0 is skipped: that of a notice that can't be had, for which somebody has to look.
      const int notice = reports_ >= 0 ? reports_ : child_->exitNotice()->Descriptor();
      pollfd wait[1 + kMaxOutputs] = {{notice, POLLIN, 0}};
      for (DWORD i = 0; i < count_; ++i) wait[1 + i] = {isAtEnd_[i] ? -1 : pipes_[i]->Descriptor(), POLLIN, 0};
      const Deadline until = notice >= 0 ? deadline : deadline.OrAfter(kLookMs);
      const timespec left = until.Left();
      if (ppoll(wait, 1 + count_, until.IsNever() ? nullptr : &left, nullptr) == 0 && deadline.HasPassed()) {
        return WAIT_TIMEOUT;
      }
      for (DWORD i = 0; i < count_; ++i) {
        if (wait[1 + i].revents != 0 && !PassOn(i)) isAtEnd_[i] = true;
      }
      if (reports_ >= 0 && wait[0].revents != 0 && !child_->ServeReport()) reports_ = -1;
    }
    for (DWORD i = 0; i < count_; ++i) PassWhatIsThere(i);
    return WAIT_OBJECT_0;
  }

 private:
  static constexpr DWORD kLookMs = 20;

  // All that the child wrote is in the pipe once it has ended. Not "until there is nothing more": a descendant that
  // keeps writing would never let that happen.
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
    if (count == kBufferSize && !isLarge_[i]) {
      fcntl(pipes_[i]->Descriptor(), F_SETPIPE_SZ, kLargePipe);
      isLarge_[i] = true;
    }
    return count > 0;
  }

  // What one read gives.
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
  int reports_;  // -1 where the reaper serves the child, or nothing is left to be served
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
