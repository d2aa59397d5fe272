#include "client/response_files.h"

#include <cstdio>
#include <memory>

#include "app/console.h"
#include "platform/host.h"

namespace kestrun {

namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

enum class ReadResult { kOk, kNotReadable, kTooLong };

// Turns each line end, LF or CR LF, into a blank. A CR may be the last byte of the piece before.
void AppendPiece(std::string& contents, const char* bytes, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (bytes[i] != '\n') {
      contents += bytes[i];
      continue;
    }
    if (!contents.empty() && contents.back() == '\r') contents.pop_back();
    contents += ' ';
  }
}

ReadResult ReadContents(const std::string& name, std::size_t maxBytes, std::string& contents) {
  const std::unique_ptr<std::FILE, CloseFile> file(platform::OpenStdio(name, "r"));
  if (!file) return ReadResult::kNotReadable;
  char buffer[4096];
  while (const std::size_t count = std::fread(buffer, 1, sizeof(buffer), file.get())) {
    AppendPiece(contents, buffer, count);
    if (contents.size() > maxBytes) return ReadResult::kTooLong;
  }
  // On some systems a folder can be opened, and only reading it fails.
  return std::ferror(file.get()) ? ReadResult::kNotReadable : ReadResult::kOk;
}

struct Reference {
  std::string name;
  std::size_t length;  // of the name with its quotes, behind the '@'
};

Reference ParseReference(const std::string& text, std::size_t at) {
  const std::size_t start = at + 1;
  const bool quoted = start < text.size() && text[start] == '"';
  const std::size_t nameStart = quoted ? start + 1 : start;
  const std::size_t end = text.find(quoted ? '"' : ' ', nameStart);
  if (end == std::string::npos) return {text.substr(nameStart), text.size() - start};
  return {text.substr(nameStart, end - nameStart), end + (quoted ? 1 : 0) - start};
}

}  // namespace

std::string ExpandResponseFiles(const std::string& text, const ResponseFileLimits& limits) {
  std::string s = text;
  std::size_t at = s.find('@');
  for (int expansions = 0; at != std::string::npos; at = s.find('@', at), ++expansions) {
    const Reference reference = ParseReference(s, at);
    if (expansions == limits.maxExpansions) {
      PrintError("Too many response files, not expanding " + reference.name);
      return s;
    }
    std::string contents;
    const std::size_t room = s.size() < limits.maxBytes ? limits.maxBytes - s.size() : 0;
    const ReadResult result = ReadContents(reference.name, room, contents);
    if (result != ReadResult::kOk) {
      const bool tooLong = result == ReadResult::kTooLong;
      PrintError((tooLong ? "Text is too long for response file " : "Could not open response file ") + reference.name);
      return s;
    }
    // The search goes on at the same place, so that references in the file's text are expanded too.
    s[at] = ' ';
    s.replace(at + 1, reference.length, contents);
  }
  return s;
}

}  // namespace kestrun
