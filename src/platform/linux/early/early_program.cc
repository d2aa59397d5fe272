// become_program.cc for a program that runs as it stands, without the C library. Signals and limits are still those of
// the start.
#include <limits.h>
#include <sys/syscall.h>

#include "platform/early_start.h"
#include "platform/linux/base/search_path.h"
#include "platform/linux/early/system_calls.h"

namespace kestrun::platform::early {

void BecomeProgram(const Start& start, char* const* words) {
  const auto execute = [&](const char* file) { return Call(SYS_execve, file, words, start.environment); };
  const std::string_view name = View(words[0]);
  for (const char c : name) {
    if (c == '/') {
      execute(words[0]);
      return;
    }
  }
  const char* const path = FindVariable(start, "PATH");
  SearchPath search(path != nullptr ? View(path) : kDefaultSearchPath);
  for (std::string_view folder; search.Next(folder);) {
    char room[PATH_MAX];
    Text file(room);
    file += folder;
    file += '/';
    file += name;
    file += '\0';
    if (file.IsCut() || !IsNextTried(static_cast<int>(-execute(room)))) return;
  }
}

}  // namespace kestrun::platform::early
