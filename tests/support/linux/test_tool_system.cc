#include "support/test_tool.h"

#include <signal.h>
#include <unistd.h>

namespace kestrun::test {
namespace {

[[noreturn]] void Exec(const std::vector<std::string>& words) {
  std::vector<std::string> copy{"test_tool"};
  copy.insert(copy.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& word : copy) argv.push_back(word.data());
  argv.push_back(nullptr);
  execv("/proc/self/exe", argv.data());
  _exit(127);
}

}  // namespace

unsigned long StartBackground(const std::string& mode, const std::vector<std::string>& words) {
  int ids[2];
  if (pipe(ids) != 0) return 0;
  const pid_t first = fork();
  if (first == 0) {
    if (mode == "group") setpgid(0, 0);
    if (mode == "session" || mode == "daemon") setsid();
    if (mode == "daemon" && fork() != 0) _exit(0);
    const pid_t own = getpid();
    if (write(ids[1], &own, sizeof own) != sizeof own) _exit(126);
    close(ids[0]);
    close(ids[1]);
    Exec(words);
  }
  pid_t started = 0;
  close(ids[1]);
  if (read(ids[0], &started, sizeof started) != sizeof started) started = 0;
  close(ids[0]);
  return static_cast<unsigned long>(started);
}

}  // namespace kestrun::test
