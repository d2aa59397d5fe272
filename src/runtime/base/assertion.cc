#include "runtime/base/assertion.h"

#include <cstdio>

namespace kestrun {

void AssertFailed(const std::string& expression, const std::string& file, int line) {
  const std::string text = "ASSERTION FAILED(" + expression + ") at " + file + ":" + std::to_string(line) + "\n";
  // In one piece, so that the lines of several threads do not mix.
  std::fputs(text.c_str(), stderr);
}

}  // namespace kestrun
