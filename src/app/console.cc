#include "app/console.h"

#include <atomic>
#include <cstdio>
#include <string>

#include "platform/host.h"
#include "platform/win32.h"

namespace kestrun {

namespace {

// A stream of the tool's output, whose loss must not go unnoticed. Error lines of Kestrun itself are written without
// that.
struct CheckedStream {
  std::FILE* file;
  const char* name;
  std::atomic<bool> hasFailed{false};
};

CheckedStream& Output() {
  static CheckedStream stream{stdout, "standard output"};
  return stream;
}

CheckedStream& Errors() {
  static CheckedStream stream{stderr, "standard error"};
  return stream;
}

bool Write(std::FILE* file, std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0;
}

// Writes nothing after a part that was lost: output with a gap in the middle would mislead.
void WriteChecked(CheckedStream& stream, std::string_view text) {
  if (stream.hasFailed || Write(stream.file, text)) return;
  const platform::WriteFailure failure = platform::LastWriteFailure();
  if (failure.isReaderGone) platform::EndWithoutReader();
  if (!stream.hasFailed.exchange(true))
    PrintError(std::string("cannot write to ") + stream.name + ": " + failure.cause);
}

}  // namespace

void WriteStandardOutput(std::string_view text) {
  WriteChecked(Output(), text);
}
void WriteStandardError(std::string_view text) {
  WriteChecked(Errors(), text);
}
bool HasLostOutput() {
  return Output().hasFailed || Errors().hasFailed;
}
void PrintError(std::string_view text) {
  Write(stderr, "KESTRUN: error: " + std::string(text) + "\n");
}
void PrintWarning(std::string_view text) {
  Write(stderr, "KESTRUN: warning: " + std::string(text) + "\n");
}
void PrintNoMaster(const std::string& error) {
  // The caller's look for the master has set the last error; it is read before this writes anything.
  const bool couldLook = GetLastError() != ERROR_TOO_MANY_OPEN_FILES;
  PrintError(error);
  if (!couldLook) return;
  Write(stderr, "KESTRUN: run the build as \"dorn <build command>\", which starts a master for it\n");
}

}  // namespace kestrun
