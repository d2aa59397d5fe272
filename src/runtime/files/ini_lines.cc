#include "runtime/files/ini_lines.h"

#include <cstdio>
#include <memory>

#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/files/ini_format_exception.h"
#include "runtime/files/path.h"

namespace kestrun {

namespace {

bool IsHeader(const std::string& line) {
  return line.size() >= 2 && line.front() == '[' && line.back() == ']';
}

bool StartsSection(const std::string& line) {
  return !line.empty() && line.front() == '[';
}

// The line without its line end, which may be that of either system: text mode translates on Windows alone.
std::string WithoutLineEnd(std::string line) {
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace

IniLines::~IniLines() {
  Write();
}

bool IniLines::Read() {
  const auto close = [](std::FILE* file) { std::fclose(file); };
  const std::unique_ptr<std::FILE, decltype(close)> file(platform::OpenRegularFile(fileName_), close);
  if (!file) return false;
  char buffer[1024];
  while (std::fgets(buffer, sizeof buffer, file.get()) != nullptr) lines_.push_back(WithoutLineEnd(buffer));
  return true;
}

std::vector<std::string> IniLines::GetSections() const {
  std::vector<std::string> sections;
  for (const std::string& line : lines_) {
    if (IsHeader(line)) sections.push_back(line.substr(1, line.size() - 2));
  }
  return sections;
}

std::vector<std::string> IniLines::GetKeys(const std::string& section) const {
  std::vector<std::string> keys;
  const std::size_t header = FindHeader(section);
  if (header == kNotFound) return keys;
  for (std::size_t i = header + 1; i < lines_.size() && !lines_[i].empty() && !StartsSection(lines_[i]); ++i) {
    const std::size_t equals = lines_[i].find('=');
    if (equals == std::string::npos) throw IniFormatException(static_cast<u32>(i), "Missing '='");
    keys.push_back(lines_[i].substr(0, equals));
  }
  return keys;
}

bool IniLines::GetValue(const std::string& section, const std::string& key, std::string& value) const {
  const std::size_t header = FindHeader(section);
  const std::size_t line = header == kNotFound ? kNotFound : FindKey(header, key);
  if (line == kNotFound) return false;
  value = lines_[line].substr(key.size() + 1);
  return true;
}

void IniLines::SetValue(const std::string& section, const std::string& key, const std::string& value) {
  const std::string text = key + "=" + value;
  changed_ = true;
  const std::size_t header = FindHeader(section);
  if (header == kNotFound) {
    if (!lines_.empty()) lines_.emplace_back();
    lines_.push_back("[" + section + "]");
    lines_.push_back(text);
    return;
  }
  const std::size_t line = FindKey(header, key);
  if (line != kNotFound) {
    lines_[line] = text;
  } else {
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(header) + 1, text);
  }
}

bool IniLines::Write() {
  if (!changed_) return true;
  // Cleared before the attempt, so that the destructor does not repeat one that has failed.
  changed_ = false;
  // A folder of another user is refused, since that user could have prepared the file's name.
  if (!platform::WhyOfOthers(Path(fileName_).GetDirectory().ToString()).empty()) return false;
  // A descriptor without an access list: every user may read and replace the file, which all users of the machine
  // share.
  SECURITY_DESCRIPTOR descriptor{};
  InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), &descriptor, FALSE};
  const UniqueFile file(CreateFileA(fileName_.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, &attributes, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL | platform::kRefuseFilesOfOthers, nullptr));
  if (!file) return false;
  for (const std::string& line : lines_) {
    const std::string text = line + "\r\n";
    DWORD written = 0;
    if (!WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size()) {
      return false;
    }
  }
  return true;
}

std::size_t IniLines::FindHeader(const std::string& section) const {
  const std::string header = "[" + section + "]";
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    if (lines_[i] == header) return i;
  }
  return kNotFound;
}

// Searches up to the next section, across empty lines, while GetKeys ends at the first one.
std::size_t IniLines::FindKey(std::size_t header, const std::string& key) const {
  const std::string start = key + "=";
  for (std::size_t i = header + 1; i < lines_.size() && !StartsSection(lines_[i]); ++i) {
    if (lines_[i].compare(0, start.size(), start) == 0) return i;
  }
  return kNotFound;
}

}  // namespace kestrun
