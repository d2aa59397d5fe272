#include "client/script_file.h"

#include <cstdio>
#include <memory>
#include <string_view>

#include "platform/host.h"

namespace kestrun {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

bool ReadScriptFile(const Path& path, std::string& text) {
  const std::unique_ptr<std::FILE, CloseFile> file(platform::OpenStdio(path.ToString(), "rb"));
  if (!file) return false;
  // Binary: line ends are the parser's matter (job_script.h).
  text.clear();
  char buffer[16384];
  while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, file.get())) text.append(buffer, count);
  if (text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0) text.erase(0, kByteOrderMark.size());
  // On some systems a folder can be opened, and only reading it fails.
  return std::ferror(file.get()) == 0;
}

}  // namespace kestrun
