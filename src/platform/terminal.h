// The modes of the terminal on which a program runs others.
#ifndef KESTRUN_PLATFORM_TERMINAL_H_
#define KESTRUN_PLATFORM_TERMINAL_H_

#include <cstddef>
#include <cstdio>
#include <memory>

namespace kestrun::platform {

// The modes of the standard input's terminal when this was made, if it is one. A program that is ended by force can't
// put back what it had changed, like the echo of what is typed.
class SavedTerminal {
 public:
  SavedTerminal();
  ~SavedTerminal();
  SavedTerminal(const SavedTerminal&) = delete;
  SavedTerminal& operator=(const SavedTerminal&) = delete;

  void Restore() const;

 private:
  struct Modes;
  std::unique_ptr<Modes> modes_;  // null without a terminal
};

// True if the stream writes to a terminal.
bool IsTerminal(std::FILE* stream);

struct TerminalSize {
  std::size_t lines = 0;
  std::size_t columns = 0;  // 0: the stream writes to no terminal
};
// A terminal that does not tell counts as one of 24 lines and 80 columns.
TerminalSize GetTerminalSize(std::FILE* stream);

// True if the stream writes to a terminal that moves its cursor by escape codes, which this turns on where that is
// needed.
bool EnableTerminalCodes(std::FILE* stream);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_TERMINAL_H_
