// The part of the crash path that other files of the layer touch.
#ifndef KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_
#define KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_

#include <ucontext.h>

#include <atomic>
#include <cstddef>

namespace kestrun::platform {

// A filter runs among stopped threads, which may hold any lock: if it takes longer than 30 s the process dies of its
// signal without it. Long work that makes progress starts the time anew. Nothing while no filter runs.
void ExtendFaultLimit();

// A thread that SuspendThread stopped: it stays in a signal handler, and its state before that is in `context`.
struct StoppedThread {
  std::atomic<int> id{0};
  std::atomic<const ucontext_t*> context{nullptr};
  std::atomic<unsigned long> threadPointer{0};
};

// The table of those, in the order in which they were stopped; slots with a null context don't count.
constexpr std::size_t kMostStoppedThreads = 1024;
const StoppedThread* StoppedThreads();

// What addresses the calling thread's own data, which is a register that a signal's context lacks.
unsigned long ThreadPointer();

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CRASH_FAULT_SIGNALS_H_
