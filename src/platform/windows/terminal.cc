#include "platform/terminal.h"

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

}  // namespace kestrun::platform
