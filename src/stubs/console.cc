#include "stubs/console.h"

#include <cstdio>
#include <string>

namespace kestrun {

namespace {

void Write(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace

void WriteStandardOutput(std::string_view text) {
  Write(stdout, text);
}
void WriteStandardError(std::string_view text) {
  Write(stderr, text);
}
void PrintError(std::string_view text) {
  Write(stderr, "KESTRUN: error: " + std::string(text) + "\n");
}
void PrintWarning(std::string_view text) {
  Write(stderr, "KESTRUN: warning: " + std::string(text) + "\n");
}

}  // namespace kestrun
