#include "dorn/report.h"

#include <cstdio>

namespace kestrun::dorn {

namespace {

// One call a line, so that it does not mix with what the build writes.
void PrintLine(const std::string& prefix, const std::string& text) {
  std::fputs((prefix + text + "\n").c_str(), stderr);
}

}  // namespace

void Print(const std::string& text) {
  PrintLine("DORN: ", text);
}

void PrintWarning(const std::string& text) {
  PrintLine("DORN: warning: ", text);
}

void PrintError(const std::string& text) {
  PrintLine("DORN: error: ", text);
}

}  // namespace kestrun::dorn
