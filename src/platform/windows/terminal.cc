#include "platform/terminal.h"

#include <io.h>

#include "platform/win32.h"

namespace kestrun::platform {

namespace {

constexpr DWORD kStreams[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE};

}  // namespace

struct SavedTerminal::Modes {
  DWORD values[2];
};

SavedTerminal::SavedTerminal() {
  Modes modes{};
  for (int i = 0; i < 2; ++i) {
    if (!GetConsoleMode(GetStdHandle(kStreams[i]), &modes.values[i])) return;
  }
  modes_ = std::make_unique<Modes>(modes);
}

SavedTerminal::~SavedTerminal() = default;

void SavedTerminal::Restore() const {
  if (!modes_) return;
  for (int i = 0; i < 2; ++i) SetConsoleMode(GetStdHandle(kStreams[i]), modes_->values[i]);
}

namespace {

HANDLE HandleOf(std::FILE* stream) {
  return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
}

}  // namespace

bool IsTerminal(std::FILE* stream) {
  DWORD modes = 0;
  return GetConsoleMode(HandleOf(stream), &modes) != FALSE;
}

TerminalSize GetTerminalSize(std::FILE* stream) {
  if (!IsTerminal(stream)) return {};
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  // The window is what the user sees; the buffer is longer.
  if (!GetConsoleScreenBufferInfo(HandleOf(stream), &info)) return {24, 80};
  const SMALL_RECT& window = info.srWindow;
  return {static_cast<std::size_t>(window.Bottom - window.Top + 1),
          static_cast<std::size_t>(window.Right - window.Left + 1)};
}

bool EnableTerminalCodes(std::FILE* stream) {
  DWORD modes = 0;
  const HANDLE console = HandleOf(stream);
  return GetConsoleMode(console, &modes) && SetConsoleMode(console, modes | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

}  // namespace kestrun::platform
