#include "platform/terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kestrun::platform {

struct SavedTerminal::Modes {
  termios values;
};

SavedTerminal::SavedTerminal() {
  Modes modes{};
  if (tcgetattr(STDIN_FILENO, &modes.values) == 0) modes_ = std::make_unique<Modes>(modes);
}

SavedTerminal::~SavedTerminal() = default;

// A background process that changes the terminal's modes is stopped by SIGTTOU, unless it has that signal blocked; then
// the call succeeds.
void SavedTerminal::Restore() const {
  if (!modes_) return;
  sigset_t stop, before;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTTOU);
  pthread_sigmask(SIG_BLOCK, &stop, &before);
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_->values);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool IsTerminal(std::FILE* stream) {
  return isatty(fileno(stream)) == 1;
}

TerminalSize GetTerminalSize(std::FILE* stream) {
  if (!IsTerminal(stream)) return {};
  winsize size = {};
  // Serial lines and some pseudo-terminals report a size of 0.
  if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) return {24, 80};
  return {size.ws_row, size.ws_col};
}

bool EnableTerminalCodes(std::FILE* stream) {
  const char* const kind = std::getenv("TERM");
  return IsTerminal(stream) && (kind == nullptr || std::strcmp(kind, "dumb") != 0);
}

}  // namespace kestrun::platform
