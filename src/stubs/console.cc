#include "stubs/console.h"

namespace kestrun {

namespace {

void Write(std::FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace

void WriteStandardOutput(const std::string& text) {
  Write(stdout, text);
}
void WriteStandardError(const std::string& text) {
  Write(stderr, text);
}
void PrintError(const std::string& text) {
  Write(stderr, "KESTRUN: error: " + text + "\n");
}
void PrintWarning(const std::string& text) {
  Write(stderr, "KESTRUN: warning: " + text + "\n");
}

}  // namespace kestrun
