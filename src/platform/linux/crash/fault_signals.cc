// The filter for unhandled exceptions, on top of the fatal signals.
//
//   a fatal signal comes                      the thread calls the filter; only one thread at a time
//   the filter itself fails                   the process dies of that signal
//   the filter takes longer than 30 s         SIGALRM: the process dies of the first signal
//   the filter lets the search go on          the process dies of the signal, as it would have without a filter
//   the filter asks to go on                  the thread continues where the signal hit it
//
// The process always dies by the signal itself and not by _exit, so that its parent sees the true cause.
#include "platform/linux/crash/fault_signals.h"

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/api/diagnostics_api.h"
#include "platform/linux/base/signal_stack.h"

namespace kestrun::platform {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP};
constexpr unsigned kFilterLimitSeconds = 30;

std::atomic<LPTOP_LEVEL_EXCEPTION_FILTER> currentFilter{nullptr};
// The thread whose filter runs, 0 for none. All atomics here are sequentially consistent, since their cost does not
// matter in a crash.
std::atomic<int> faultingThread{0};
std::atomic<int> faultingSignal{0};

void* ProgramCounter(const ucontext_t& context) {
#if defined(__x86_64__)
  return reinterpret_cast<void*>(context.uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return reinterpret_cast<void*>(context.uc_mcontext.pc);
#else
  return nullptr;
#endif
}

DWORD ExceptionCode(int signal) {
  switch (signal) {
    case SIGSEGV:
      return EXCEPTION_ACCESS_VIOLATION;
    case SIGBUS:
      return EXCEPTION_IN_PAGE_ERROR;
    case SIGFPE:
      return EXCEPTION_INT_DIVIDE_BY_ZERO;
    case SIGILL:
      return EXCEPTION_ILLEGAL_INSTRUCTION;
    case SIGTRAP:
      return EXCEPTION_BREAKPOINT;
    default:
      return STATUS_FATAL_APP_EXIT;
  }
}

// Lets the signal end the process in its own way, as soon as it is not blocked any more.
void DieOf(int signal) {
  ::signal(signal, SIG_DFL);
  syscall(SYS_tgkill, getpid(), gettid(), signal);
}

void OnLimit(int) {
  const int signal = faultingSignal.load();
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  DieOf(signal);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
}

// A timer by signal and not by thread: the other threads may be stopped.
void StartLimit(int signal) {
  faultingSignal.store(signal);
  struct sigaction action {};
  action.sa_handler = OnLimit;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarmOnly;
  sigemptyset(&alarmOnly);
  sigaddset(&alarmOnly, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  alarm(kFilterLimitSeconds);
}

LONG CallFilter(int signal, const siginfo_t* info, ucontext_t* machine) {
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = currentFilter.load();
  if (filter == nullptr) return EXCEPTION_CONTINUE_SEARCH;
  EXCEPTION_RECORD record{};
  record.ExceptionCode = ExceptionCode(signal);
  record.ExceptionAddress = ProgramCounter(*machine);
  if (signal == SIGSEGV || signal == SIGBUS) {
    record.NumberParameters = 2;
    record.ExceptionInformation[1] = reinterpret_cast<ULONG_PTR>(info->si_addr);
  }
  CONTEXT context{machine, signal};
  EXCEPTION_POINTERS pointers{&record, &context};
  StartLimit(signal);
  const LONG answer = filter(&pointers);
  alarm(0);
  return answer;
}

void OnFatalSignal(int signal, siginfo_t* info, void* machine) {
  const int error = errno;
  const int self = gettid();
  int owner = 0;
  while (!faultingThread.compare_exchange_weak(owner, self)) {
    if (owner == self) return DieOf(signal);  // the filter itself failed
    // Another thread's filter is about to end the process, and must be able to finish its report first.
    constexpr timespec kMoment{0, 10'000'000};
    nanosleep(&kMoment, nullptr);
    owner = 0;
  }
  const LONG answer = CallFilter(signal, info, static_cast<ucontext_t*>(machine));
  faultingThread.store(0);
  errno = error;
  if (answer != EXCEPTION_CONTINUE_EXECUTION) DieOf(signal);
}

void InstallHandlers() {
  struct sigaction action {};
  action.sa_sigaction = OnFatalSignal;
  // SA_ONSTACK: the thread's own stack may have overflowed. SA_NODEFER: a fault in the filter must come through, to end
  // the process.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  for (const int signal : kFatalSignals) sigaction(signal, &action, nullptr);
}

}  // namespace

void ExtendFaultLimit() {
  if (faultingThread.load() != 0) alarm(kFilterLimitSeconds);
}

unsigned long ThreadPointer() {
  return reinterpret_cast<unsigned long>(__builtin_thread_pointer());
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
  const LPTOP_LEVEL_EXCEPTION_FILTER before = currentFilter.exchange(filter);
  if (filter == nullptr) {
    for (const int signal : kFatalSignals) ::signal(signal, SIG_DFL);
    return before;
  }
  NeedSignalStacks();
  if (before == nullptr) InstallHandlers();
  return before;
}
