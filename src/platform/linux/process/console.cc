// Console control handlers on top of signals: a signal handler writes each number into a pipe, and one thread reads
// them and calls the console handlers.
//
// The handlers take locks and allocate memory, which a signal handler must not do: it may have interrupted the very
// thread that holds the lock. A pipe and not sigwait, because sigwait needs the signals blocked in every thread of the
// process, also in those that ran before the first handler was added.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "platform/api/process_api.h"
#include "platform/host.h"
#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/process/child_process.h"

namespace kestrun::platform {
namespace {

constexpr int kConsoleSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

DWORD EventOf(int signal) {
  if (signal == SIGINT) return CTRL_C_EVENT;
  return signal == SIGHUP ? CTRL_CLOSE_EVENT : CTRL_BREAK_EVENT;
}

// Carries the numbers of signals from the handler to the console thread.
// Not blocking: with a full pipe a signal is dropped, and the handler does not wait in an interrupted thread.
int signalPipe[2] = {-1, -1};

void OnSignal(int signal) {
  const int error = errno;
  const unsigned char byte = static_cast<unsigned char>(signal);
  [[maybe_unused]] const ssize_t written = write(signalPipe[1], &byte, 1);
  errno = error;
}

[[noreturn]] void DieBy(int number) {
  signal(number, SIG_DFL);
  raise(number);
  _exit(128 + number);
}

class Console {
 public:
  bool Add(PHANDLER_ROUTINE handler) {
    const std::lock_guard lock(mutex_);
    if (!started_ && !Start()) return false;
    handlers_.push_back(handler);
    return true;
  }

  bool Remove(PHANDLER_ROUTINE handler) {
    const std::lock_guard lock(mutex_);
    const auto last = std::find(handlers_.rbegin(), handlers_.rend(), handler);
    if (last == handlers_.rend()) return false;
    handlers_.erase(std::next(last).base());
    return true;
  }

  void IgnoreCtrlC(bool ignore) {
    const std::lock_guard lock(mutex_);
    ignoresCtrlC_ = ignore;
    // While no console handler was ever added, no thread reads the pipe, and the disposition of SIGINT alone decides.
    if (!started_) signal(SIGINT, ignore ? SIG_IGN : SIG_DFL);
  }

 private:
  // The console's thread takes the signals. The calling thread and those that it starts later block them, so that their
  // system calls are not interrupted. Threads that were started earlier may still receive them; that does no more than
  // interrupt a call.
  bool Start() {
    if (signalPipe[0] < 0 && pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
    sigset_t console, others, before;
    sigemptyset(&console);
    for (const int number : kConsoleSignals) sigaddset(&console, number);
    sigfillset(&others);
    // The new thread inherits the mask: it blocks everything but the console's signals.
    for (const int number : kConsoleSignals) sigdelset(&others, number);
    pthread_sigmask(SIG_SETMASK, &others, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, &Console::ThreadMain, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) return false;
    pthread_detach(thread);
    InstallSignalHandlers();
    pthread_sigmask(SIG_BLOCK, &console, nullptr);
    started_ = true;
    return true;
  }

  // A signal that was ignored when the program started stays ignored: nohup and shells that start background jobs rely
  // on it.
  static void InstallSignalHandlers() {
    for (const int number : kConsoleSignals) {
      struct sigaction action = {};
      if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
      action.sa_handler = &OnSignal;
      action.sa_flags = SA_RESTART;
      sigaction(number, &action, nullptr);
    }
  }

  static void* ThreadMain(void* self) {
    while (true) {
      pollfd wait{signalPipe[0], POLLIN, 0};
      unsigned char signal = 0;
      if (poll(&wait, 1, -1) > 0 && read(signalPipe[0], &signal, 1) == 1) static_cast<Console*>(self)->Handle(signal);
    }
  }

  // No lock is held while a handler runs, because handlers may add and remove handlers, and often end the process.
  void Handle(int signal) {
    std::vector<PHANDLER_ROUTINE> handlers;
    {
      const std::lock_guard lock(mutex_);
      if (signal == SIGINT && ignoresCtrlC_) return;
      handlers = handlers_;
    }
    const bool handled =
        std::any_of(handlers.rbegin(), handlers.rend(), [&](const auto handler) { return handler(EventOf(signal)); });
    if (!handled) DieBy(signal);
  }

  std::mutex mutex_;
  bool started_ = false;                    // guarded by mutex_
  bool ignoresCtrlC_ = false;               // guarded by mutex_
  std::vector<PHANDLER_ROUTINE> handlers_;  // guarded by mutex_
};

Console& TheConsole() {
  static NeverDestroyed<Console> console;
  return console.get();
}

}  // namespace

// The id of a child that was waited for may already belong to another process, so ids are looked up among the living
// children.
bool AskToEnd(DWORD childId) {
  const std::shared_ptr<ChildProcess> child = ChildProcess::Find(static_cast<pid_t>(childId));
  return child && !child->IsSignalled() && kill(static_cast<pid_t>(childId), SIGTERM) == 0;
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add) {
  if (handler == nullptr) {
    TheConsole().IgnoreCtrlC(add != FALSE);
    return TRUE;
  }
  if (add != FALSE ? TheConsole().Add(handler) : TheConsole().Remove(handler)) return TRUE;
  SetLastError(add != FALSE ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_PARAMETER);
  return FALSE;
}

BOOL GenerateConsoleCtrlEvent(DWORD ctrlEvent, DWORD processGroupId) {
  if (ctrlEvent == CTRL_C_EVENT || ctrlEvent == CTRL_BREAK_EVENT) {
    const int signal = ctrlEvent == CTRL_C_EVENT ? SIGINT : SIGTERM;
    if (processGroupId == 0) return kill(0, signal) == 0;
    const std::shared_ptr<ChildProcess> child = ChildProcess::Find(static_cast<pid_t>(processGroupId));
    if (child && child->SignalGroup(signal)) return TRUE;
  }
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}
