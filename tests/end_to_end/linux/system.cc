#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "build_fixture.h"

namespace kestrun::test {

unsigned long long CpuTimeMs(unsigned long pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text(std::istreambuf_iterator<char>(file), {});
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  unsigned long long user = 0;
  unsigned long long kernel = 0;
  fields >> user >> kernel;
  return (user + kernel) * 1000 / static_cast<unsigned long long>(sysconf(_SC_CLK_TCK));
}

}  // namespace kestrun::test
