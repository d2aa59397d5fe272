#include "dorn/settings_file.h"

#include <algorithm>

#include "platform/win32.h"
#include "runtime/base/everyone_access.h"
#include "runtime/base/handle.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/text_file.h"

namespace kestrun::dorn {

namespace {

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    at = end + 1;
  }
  return lines;
}

bool IsHeader(const std::string& line) {
  return line.size() >= 2 && line.front() == '[' && line.back() == ']';
}

bool IsComment(const std::string& line) {
  return line.front() == '#' || line.front() == ';';
}

bool WriteAll(const std::string& name, const std::string& text) {
  const EveryoneAccess access;
  UniqueFile file(CreateFileA(name.c_str(), GENERIC_WRITE, 0, access.GetAttributes(), CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  DWORD written = 0;
  return WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written == text.size() && FlushFileBuffers(file.Get()) && file.Reset();
}

}  // namespace

// Reads the lines as runtime/files/ini_lines.cc does, and reports each that a user may expect to be read differently.
// The reader's quirks:
//
//   an empty line ends a section; lines behind it stand in none until the next header
//   of two sections of a name, and of two settings of a name, only the first is found
//   there are no comments: in a section, "#" is the first character of a name, and a line without "=" is malformed
//   a malformed line drops its whole section, and no section behind it is read
class SettingsFile::Parser {
 public:
  explicit Parser(SettingsFile& file) : file_(file) {}

  void Run() {
    for (std::size_t i = 0; i < file_.lines_.size() && !hasStopped_; ++i) Take(file_.lines_[i], i + 1);
  }

 private:
  void Take(const std::string& line, std::size_t number) {
    if (line.empty()) {
      isInSection_ = false;
    } else if (IsHeader(line)) {
      StartSection(line.substr(1, line.size() - 2), number);
    } else if (line.front() == '[') {
      isInSection_ = false;
      Report(number, "a section's line has nothing in front of \"[\" or behind \"]\"; it starts no section");
    } else if (!isInSection_) {
      // Other lines outside of sections are taken for comments, which are only safe there.
      if (!IsComment(line) && line.find('=') != std::string::npos) {
        Report(number, "stands in no section and is not read: an empty line ends a section");
      }
    } else {
      TakeSetting(line, number);
    }
  }

  void StartSection(const std::string& name, std::size_t number) {
    isInSection_ = std::find(sections_.begin(), sections_.end(), name) == sections_.end();
    if (!isInSection_) Report(number, "section [" + name + "] stands twice; this one is not read");
    section_ = name;
    firstOfSection_ = file_.settings_.size();
    sections_.push_back(name);
  }

  void TakeSetting(const std::string& line, std::size_t number) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
      Report(number, "is no setting (\"name=value\"), so nothing of section [" + section_ +
                         "] and behind it is read; comments go above the first section");
      file_.settings_.resize(firstOfSection_);
      hasStopped_ = true;
      return;
    }
    const std::string name = line.substr(0, equals);
    // The reader takes this for a setting with an odd name, which does no harm.
    if (IsComment(line)) return;
    if (file_.Find(section_, name) != nullptr) {
      Report(number, name + " stands twice; the first one counts");
      return;
    }
    file_.settings_.push_back({section_, name, line.substr(equals + 1), number});
  }

  void Report(std::size_t number, std::string cause) { file_.faults_.push_back({number, std::move(cause)}); }

  SettingsFile& file_;
  bool hasStopped_ = false;
  bool isInSection_ = false;
  std::string section_;
  std::size_t firstOfSection_ = 0;
  std::vector<std::string> sections_;
};

bool SettingsFile::Load(const Path& file) {
  std::string text;
  std::string error;
  if (!file.Exists() || !ReadTextFile(file, &text, nullptr, &error)) return false;
  Parse(text);
  return true;
}

void SettingsFile::Parse(const std::string& text) {
  lines_ = SplitLines(text);
  settings_.clear();
  faults_.clear();
  Parser(*this).Run();
}

const SettingsFile::Setting* SettingsFile::Find(const std::string& section, const std::string& name) const {
  const auto found = std::find_if(settings_.begin(), settings_.end(), [&](const Setting& setting) {
    return setting.section == section && setting.name == name;
  });
  return found == settings_.end() ? nullptr : &*found;
}

bool SettingsFile::HasSection(const std::string& name) const {
  return std::find(lines_.begin(), lines_.end(), "[" + name + "]") != lines_.end();
}

void SettingsFile::Add(const std::string& section, const std::string& name, const std::string& value) {
  // The first section of that name, which is the one that is read.
  auto at = std::find(lines_.begin(), lines_.end(), "[" + section + "]");
  if (at == lines_.end()) {
    if (!lines_.empty() && !lines_.back().empty()) lines_.emplace_back();
    at = lines_.insert(lines_.end(), "[" + section + "]");
  }
  do {
    // Up to the first empty line at most: behind that one the new line would not be read.
    ++at;
  } while (at != lines_.end() && !at->empty() && at->front() != '[');
  lines_.insert(at, name + "=" + value);
  Parse(GetText());
}

std::string SettingsFile::GetText() const {
  std::string text;
  for (const std::string& line : lines_) text += line + "\r\n";
  return text;
}

bool WriteWholeFile(const Path& file, const std::string& text, bool isNew) {
  // The process id keeps two dorns that write at once apart.
  const std::string temporary = file.ToString() + "." + std::to_string(GetCurrentProcessId()) + ".new";
  const DWORD flags = isNew ? 0 : MOVEFILE_REPLACE_EXISTING;
  // The data is on the disk (FlushFileBuffers) before the file gets its name, so that no crash leaves half a file
  // there.
  if (WriteAll(temporary, text) && MoveFileExA(temporary.c_str(), file.c_str(), flags)) return true;
  // DeleteFileA changes the last error, which the caller reports.
  const DWORD error = GetLastError();
  DeleteFileA(temporary.c_str());
  SetLastError(error);
  return false;
}

}  // namespace kestrun::dorn
