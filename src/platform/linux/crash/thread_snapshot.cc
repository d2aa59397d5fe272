// Listing the threads of this process and stopping them, for the crash path.
//
// Linux has no call that stops a thread of one's own process, so a signal is sent to it, in whose handler it stays for
// ever. The handler finds its entry in a table by its thread id, stores its registers there and pauses. The signal is a
// real-time one that neither the C library nor this program uses otherwise.
#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/api/diagnostics_api.h"
#include "platform/linux/crash/fault_signals.h"
#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

constexpr DWORD kFailed = 0xFFFFFFFF;

StoppedThread stoppedThreads[kMostStoppedThreads];
std::atomic<std::size_t> stoppedCount{0};

int StopSignal() {
  return SIGRTMIN + 6;
}

// The handler in which a stopped thread stays, with every signal blocked, until the process ends.
void StayStopped(int, siginfo_t*, void* context) {
  const int self = gettid();
  // Acquire pairs with the release in SuspendThread: the entry's id is visible.
  const std::size_t count = std::min(stoppedCount.load(std::memory_order_acquire), kMostStoppedThreads);
  for (std::size_t i = 0; i < count; ++i) {
    StoppedThread& thread = stoppedThreads[i];
    // Relaxed: the id was written before the count.
    if (thread.id.load(std::memory_order_relaxed) != self) continue;
    // Relaxed, because the release of `context` below publishes it.
    thread.threadPointer.store(ThreadPointer(), std::memory_order_relaxed);
    thread.context.store(static_cast<const ucontext_t*>(context), std::memory_order_release);
    for (;;) pause();
  }
}

bool PrepareStopSignal() {
  static const bool prepared = [] {
    struct sigaction action {};
    action.sa_sigaction = StayStopped;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&action.sa_mask);
    return sigaction(StopSignal(), &action, nullptr) == 0;
  }();
  return prepared;
}

class SnapshotObject : public Object {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kSnapshot;

  explicit SnapshotObject(std::vector<DWORD> threads) : Object(kKind), threads_(std::move(threads)) {}

  BOOL Give(bool first, THREADENTRY32& entry) {
    const std::lock_guard lock(mutex_);
    if (first) next_ = 0;
    if (entry.dwSize < sizeof entry || next_ >= threads_.size()) {
      SetLastError(entry.dwSize < sizeof entry ? ERROR_INVALID_PARAMETER : ERROR_NO_MORE_FILES);
      return FALSE;
    }
    entry = {sizeof entry, 0, threads_[next_++], static_cast<DWORD>(getpid()), 8, 0, 0};
    return TRUE;
  }

 private:
  const std::vector<DWORD> threads_;
  std::mutex mutex_;
  std::size_t next_ = 0;  // guarded by mutex_
};

class ForeignThread : public Object {
 public:
  explicit ForeignThread(DWORD id) : Object(ObjectKind::kOther), id_(id) {}
  DWORD id() const { return id_; }

 private:
  const DWORD id_;
};

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

// False if the thread has not stopped after 200 ms: it has every signal blocked, or is stuck in the kernel.
bool AwaitStop(const StoppedThread& thread) {
  constexpr int kRounds = 2000;
  constexpr timespec kMoment{0, 100'000};
  for (int i = 0; i < kRounds; ++i) {
    // Acquire pairs with the release in StayStopped.
    if (thread.context.load(std::memory_order_acquire) != nullptr) return true;
    nanosleep(&kMoment, nullptr);
  }
  return false;
}

}  // namespace

const StoppedThread* StoppedThreads() {
  return stoppedThreads;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD) {
  const std::unique_ptr<DIR, DirectoryCloser> directory((flags & TH32CS_SNAPTHREAD) != 0 ? opendir("/proc/self/task")
                                                                                         : nullptr);
  if (!directory) {
    SetLastError((flags & TH32CS_SNAPTHREAD) != 0 ? Win32ErrorFromErrno(errno) : ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  std::vector<DWORD> threads;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] != '.') threads.push_back(static_cast<DWORD>(std::atol(entry->d_name)));
  }
  const HANDLE handle = AllocateHandle(std::make_shared<SnapshotObject>(std::move(threads)));
  return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

BOOL Thread32First(HANDLE snapshot, THREADENTRY32* entry) {
  const auto object = LookUp<SnapshotObject>(snapshot);
  return object ? object->Give(true, *entry) : FALSE;
}

BOOL Thread32Next(HANDLE snapshot, THREADENTRY32* entry) {
  const auto object = LookUp<SnapshotObject>(snapshot);
  return object ? object->Give(false, *entry) : FALSE;
}

HANDLE OpenThread(DWORD, BOOL, DWORD threadId) {
  if (syscall(SYS_tgkill, getpid(), static_cast<pid_t>(threadId), 0) == 0) {
    return AllocateHandle(std::make_shared<ForeignThread>(threadId));
  }
  SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

DWORD SuspendThread(HANDLE thread) {
  const auto object = LookUp<ForeignThread>(thread);
  if (!object || !PrepareStopSignal()) return kFailed;
  // Relaxed, as for the id below: one thread alone, that of the crash filter, stops others and writes these. The
  // release of the count publishes the id to the handler of the thread that is stopped.
  const std::size_t index = stoppedCount.load(std::memory_order_relaxed);
  if (index >= kMostStoppedThreads) {
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return kFailed;
  }
  const auto id = static_cast<int>(object->id());
  // Relaxed: the release below publishes it to the handler.
  stoppedThreads[index].id.store(id, std::memory_order_relaxed);
  stoppedCount.store(index + 1, std::memory_order_release);
  if (syscall(SYS_tgkill, getpid(), id, StopSignal()) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return kFailed;
  }
  if (AwaitStop(stoppedThreads[index])) return 0;
  SetLastError(static_cast<DWORD>(WAIT_TIMEOUT));
  return kFailed;
}
