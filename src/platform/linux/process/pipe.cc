#include "platform/linux/process/pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/api/process_api.h"
#include "platform/linux/base/start_state.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {
namespace {

// Windows fails a write to a pipe whose reader has gone; here the signal that would end the process is ignored for the
// same effect.
[[maybe_unused]] const bool kBrokenPipesAreErrors = IgnoreSignal(SIGPIPE);

DWORD BytesWaiting(int descriptor) {
  int count = 0;
  return ioctl(descriptor, FIONREAD, &count) == 0 ? static_cast<DWORD>(count) : 0;
}

}  // namespace

void PipeFeeders::Add(std::shared_ptr<ExitNotice> feeder) {
  const std::lock_guard lock(mutex_);
  feeders_.push_back(std::move(feeder));
}

bool PipeFeeders::IsEmpty() const {
  const std::lock_guard lock(mutex_);
  return feeders_.empty();
}

std::shared_ptr<ExitNotice> PipeFeeders::Running() const {
  const std::lock_guard lock(mutex_);
  const auto running =
      std::find_if(feeders_.begin(), feeders_.end(), [](const auto& feeder) { return !feeder->IsSet(); });
  return running != feeders_.end() ? *running : nullptr;
}

// Returns once a read would give something, or all children have ended and remaining_ is set. A pipe that was given to
// no child has no feeders; then the read itself waits, as on any pipe.
void PipeReadEnd::AwaitDataOrEnd() {
  while (const std::shared_ptr<ExitNotice> running = feeders_->Running()) {
    pollfd wait[2] = {{Descriptor(), POLLIN, 0}, {running->Descriptor(), POLLIN, 0}};
    // poll ignores a negative descriptor. Without one the loop asks the notice itself at every turn.
    const int limitMs = wait[1].fd >= 0 ? -1 : kExitPollMs;
    if (poll(wait, 2, limitMs) > 0 && wait[0].revents != 0) return;
  }
  if (!feeders_->IsEmpty()) remaining_ = BytesWaiting(Descriptor());
}

bool PipeReadEnd::Read(void* buffer, DWORD count, DWORD* read) {
  *read = 0;
  const std::lock_guard lock(readMutex_);
  if (!remaining_) AwaitDataOrEnd();
  // What a descendant writes after the children's end is not read: the output is complete without it.
  if (remaining_) count = std::min(count, *remaining_);
  if (remaining_ != 0u && !FileObject::Read(buffer, count, read)) return false;
  if (*read == 0) {
    SetLastError(ERROR_BROKEN_PIPE);
    return false;
  }
  if (remaining_) *remaining_ -= *read;
  return true;
}

bool PipeReadEnd::Peek(void*, DWORD, DWORD* read, DWORD* available) {
  const DWORD waiting = BytesWaiting(Descriptor());
  pollfd state{Descriptor(), POLLIN, 0};
  if (waiting == 0 && poll(&state, 1, 0) > 0 && (state.revents & POLLIN) == 0) {
    SetLastError(ERROR_BROKEN_PIPE);
    return false;
  }
  if (read != nullptr) *read = 0;
  if (available != nullptr) *available = waiting;
  return true;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL CreatePipe(HANDLE* readPipe, HANDLE* writePipe, LPSECURITY_ATTRIBUTES, DWORD) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    SetLastError(Win32ErrorFromErrno(errno));
    return FALSE;
  }
  FileDescriptor readDescriptor(ends[0]);
  FileDescriptor writeDescriptor(ends[1]);
  const auto feeders = std::make_shared<PipeFeeders>();
  const HANDLE readHandle = AllocateHandle(std::make_shared<PipeReadEnd>(std::move(readDescriptor), feeders));
  if (readHandle == nullptr) return FALSE;
  const HANDLE writeHandle = AllocateHandle(std::make_shared<PipeWriteEnd>(std::move(writeDescriptor), feeders));
  if (writeHandle == nullptr) {
    ReleaseHandle(readHandle);
    return FALSE;
  }
  *readPipe = readHandle;
  *writePipe = writeHandle;
  return TRUE;
}

BOOL PeekNamedPipe(HANDLE pipe, LPVOID buffer, DWORD bufferSize, LPDWORD bytesRead, LPDWORD totalAvailable,
                   LPDWORD bytesLeft) {
  const std::shared_ptr<FileObject> file = LookUp<FileObject>(pipe);
  DWORD available = 0;
  if (!file || !file->Peek(buffer, bufferSize, bytesRead, &available)) return FALSE;
  if (totalAvailable != nullptr) *totalAvailable = available;
  if (bytesLeft != nullptr) *bytesLeft = 0;
  return TRUE;
}
