#include "kill_support.h"

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace kestrun::test {

const unsigned kRandomKillLimitMs = 0;

void KillProcess(unsigned long pid) {
  kill(static_cast<pid_t>(pid), SIGKILL);
}

// What killed processes leave is swept by one that makes an object, if the stamp says that it is time again.
std::string NamedObjectsLeft(const std::string& folder) {
  std::filesystem::remove(std::filesystem::path(folder) / ".sweep");
  CloseHandle(CreateEventA(nullptr, FALSE, FALSE, UniqueName("sweeps").c_str()));
  std::string left;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name[0] != '.') left += name + '\n';
  }
  return left;
}

int CountProcessesOf(const std::string& id) {
  const std::string wanted = '\0' + ("KESTRUN_ID=" + id) + '\0';
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    if (entry.path().filename().string().find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    const std::string text = '\0' + std::string(std::istreambuf_iterator<char>(file), {});
    if (text.find(wanted) != std::string::npos) ++count;
  }
  return count;
}

}  // namespace kestrun::test
