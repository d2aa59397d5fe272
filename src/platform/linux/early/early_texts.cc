// What a start without the C library reads of its surroundings.
#include <sys/stat.h>
#include <sys/syscall.h>

#include "platform/early_start.h"
#include "platform/linux/base/quoted_argument.h"
#include "platform/linux/early/system_calls.h"

namespace kestrun::platform::early {

std::string_view View(const char* text) {
  std::size_t size = 0;
  while (text[size] != '\0') ++size;
  return {text, size};
}

const char* FindVariable(const Start& start, const char* name) {
  for (const char* const* entry = start.environment; *entry != nullptr; ++entry) {
    std::size_t i = 0;
    while (name[i] != '\0' && (*entry)[i] == name[i]) ++i;
    if (name[i] == '\0' && (*entry)[i] == '=') return *entry + i + 1;
  }
  return nullptr;
}

void AppendCommandLine(const char* const* words, Text& text) {
  for (const char* const* word = words; *word != nullptr; ++word) {
    if (word != words) text += ' ';
    AppendArgument(View(*word), text);
  }
}

// The kernel puts a mark before a folder that is not below this process's root.
std::string_view CurrentFolder(char* room, std::size_t size) {
  const long count = Call(SYS_getcwd, room, size);
  return count > 0 && room[0] == '/' ? View(room) : std::string_view();
}

std::uint64_t PipeNumber(int standardStream) {
  struct stat status;
  return Call(SYS_fstat, standardStream, &status) == 0 && S_ISFIFO(status.st_mode) ? status.st_ino : 0;
}

}  // namespace kestrun::platform::early
