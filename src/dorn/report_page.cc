#include "dorn/report_page.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "dorn/output_file.h"
#include "dorn/report_template.h"
#include "platform/host.h"

namespace kestrun::dorn {

namespace {

// U+FFFD. What dorn records is valid UTF-8, but a record that another program wrote anew need not be.
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

unsigned ByteAt(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool IsIn(unsigned value, unsigned low, unsigned high) {
  return value >= low && value <= high;
}

// How many bytes the UTF-8 sequence at `at` has, or 0 if there is none: a lead byte without its others, an overlong
// form, a surrogate, a number that is too large.
std::size_t SequenceLength(std::string_view text, std::size_t at) {
  const unsigned lead = ByteAt(text, at);
  if (lead < 0x80) return 1;
  const std::size_t length = IsIn(lead, 0xC2, 0xDF) ? 2 : IsIn(lead, 0xE0, 0xEF) ? 3 : IsIn(lead, 0xF0, 0xF4) ? 4 : 0;
  const unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (length == 0 || !IsIn(ByteAt(text, at + 1), low, high)) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (!IsIn(ByteAt(text, at + k), 0x80, 0xBF)) return 0;
  }
  return length;
}

// What stands in the page for a sequence; empty if that is the sequence itself. A "<" could end the element or begin a
// comment in it, and in JSON it can only stand in a string. The two line separators end a line of older scripts.
std::string_view Substitute(std::string_view sequence) {
  if (sequence.empty()) return kReplacement;
  if (sequence == "<") return "\\u003c";
  if (sequence == "\xE2\x80\xA8") return "\\u2028";
  if (sequence == "\xE2\x80\xA9") return "\\u2029";
  return "";
}

void AppendRecord(std::string& page, std::string_view record) {
  std::size_t copied = 0;
  for (std::size_t at = 0; at < record.size();) {
    const std::size_t length = SequenceLength(record, at);
    const std::string_view substitute = Substitute(record.substr(at, length));
    const std::size_t next = at + (length == 0 ? 1 : length);
    if (!substitute.empty()) {
      page.append(record.substr(copied, at - copied)).append(substitute);
      copied = next;
    }
    at = next;
  }
  page.append(record.substr(copied));
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

using UniqueStdio = std::unique_ptr<std::FILE, FileCloser>;

// The page finds out more, in the browser. A program may have written the record anew, with other blanks.
bool IsRecord(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return first != std::string::npos && text[first] == '{' && text[last] == '}' &&
         text.find("\"kestrun_build_record\"") != std::string::npos;
}

// False with errno set.
bool ReadFileWhole(const Path& path, std::string& text) {
  const UniqueStdio file(platform::OpenRegularFile(path.ToString()));
  if (!file) return false;
  std::vector<char> part(1 << 16);
  while (const std::size_t length = std::fread(part.data(), 1, part.size(), file.get()))
    text.append(part.data(), length);
  return std::ferror(file.get()) == 0;
}

}  // namespace

std::string WriteReportPage(std::string_view record) {
  const ReportTemplate around = GetReportTemplate();
  std::string page;
  page.reserve(around.head.size() + record.size() + record.size() / 16 + around.tail.size());
  page.append(around.head);
  AppendRecord(page, record);
  page.append(around.tail);
  return page;
}

bool SaveReportPage(std::string_view record, const Path& pageFile, std::string& error) {
  return WriteOutputFile(pageFile, WriteReportPage(record), error);
}

bool SaveReportPageOf(const Path& recordFile, const Path& pageFile, std::string& error) {
  std::string record;
  if (!ReadFileWhole(recordFile, record)) {
    error = "cannot read " + recordFile.ToString() + ": " + std::strerror(errno);
    return false;
  }
  if (!IsRecord(record)) {
    error = recordFile.ToString() + " is no build record, as --record writes one";
    return false;
  }
  return SaveReportPage(record, pageFile, error);
}

}  // namespace kestrun::dorn
