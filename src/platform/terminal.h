// The modes of the terminal on which a program runs others.
#ifndef KESTRUN_PLATFORM_TERMINAL_H_
#define KESTRUN_PLATFORM_TERMINAL_H_

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

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_TERMINAL_H_
