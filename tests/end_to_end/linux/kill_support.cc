#include "kill_support.h"

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace kestrun::test {

void KillProcess(unsigned long pid) {
  kill(static_cast<pid_t>(pid), SIGKILL);
}

void StopProcess(unsigned long pid) {
  kill(static_cast<pid_t>(pid), SIGSTOP);
}

void ContinueProcess(unsigned long pid) {
  kill(static_cast<pid_t>(pid), SIGCONT);
}

KESTRUN_CHILD(MakesAnObject) {
  CreateEventA(nullptr, FALSE, FALSE, words[0].c_str());
  return 0;
}

// What killed processes leave is swept by the next process that makes an object, if the stamp says that it is time.
std::string NamedObjectsLeft(const std::string& folder) {
  std::filesystem::remove(std::filesystem::path(folder) / ".sweep");
  const std::string own = UniqueName("sweeper");
  ChildOptions options;
  options.environment["KESTRUN_OBJECT_DIR"] = folder;
  EXPECT_EQ(Child::Self("MakesAnObject", {own}, options).Wait(), 0);
  std::string left;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name[0] == '.' || name == "l-" + own || name.rfind("l-e2e_event", 0) == 0) continue;
    left += name + '\n';
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
