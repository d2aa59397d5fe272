#include "platform/terminal.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

namespace kestrun::platform {

struct SavedTerminal::Modes {
  termios values;
};

SavedTerminal::SavedTerminal() {
  Modes modes{};
  if (tcgetattr(STDIN_FILENO, &modes.values) == 0) modes_ = std::make_unique<Modes>(modes);
}

SavedTerminal::~SavedTerminal() = default;

// A process in the background that sets modes is stopped by SIGTTOU unless it has that blocked; then the call works.
void SavedTerminal::Restore() const {
  if (!modes_) return;
  sigset_t stop, before;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTTOU);
  pthread_sigmask(SIG_BLOCK, &stop, &before);
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_->values);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace kestrun::platform
