// The part of the crash path that other files of the layer touch.
#ifndef KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_
#define KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_

#include <ucontext.h>

#include <atomic>
#include <cstddef>

namespace kestrun::platform {

// Starts the time limit of a running filter anew; without a running filter it does nothing. A filter runs beside
// stopped threads, which may hold any lock, so it may hang: after 30 s the process dies of its signal. Long work that
// makes progress calls this.
void ExtendFaultLimit();

// A thread that SuspendThread has stopped. It stays in a signal handler; `context` is its state before that.
struct StoppedThread {
  std::atomic<int> id{0};
  std::atomic<const ucontext_t*> context{nullptr};
  std::atomic<unsigned long> threadPointer{0};
};

// The table of stopped threads, in the order in which they were stopped. Entries with a null context do not count.
constexpr std::size_t kMostStoppedThreads = 1024;
const StoppedThread* StoppedThreads();

// The register by which the calling thread addresses its thread-local data. The context of a signal does not contain
// it.
unsigned long ThreadPointer();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_
