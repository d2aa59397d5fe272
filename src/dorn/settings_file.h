// The text of a settings file as dorn checks and extends it: each line keeps its place, and the reader's rules
// (docs/settings.md) tell which lines count.
//
// Plain values; one thread at a time. Failures are results.
#ifndef KESTRUN_DORN_SETTINGS_FILE_H_
#define KESTRUN_DORN_SETTINGS_FILE_H_

#include <cstddef>
#include <string>
#include <vector>

#include "runtime/files/path.h"

namespace kestrun::dorn {

// A line that does not do what it seems to say.
struct SettingsFault {
  std::size_t line;  // from 1
  std::string cause;
};

class SettingsFile {
 public:
  struct Setting {
    std::string section;
    std::string name;
    std::string value;  // with its type
    std::size_t line;   // from 1
  };

  // False if there is no file that can be read.
  bool Load(const Path& file);
  void Parse(const std::string& text);

  // Those that programs read, in the order of the file.
  const std::vector<Setting>& GetSettings() const { return settings_; }
  // Of the file's form alone; what stands in a value is not looked at.
  const std::vector<SettingsFault>& GetFaults() const { return faults_; }
  // Null if programs do not read such a setting.
  const Setting* Find(const std::string& section, const std::string& name) const;

  bool HasSection(const std::string& name) const;

  // A line behind the section's last setting; a section that is missing is added at the end.
  void Add(const std::string& section, const std::string& name, const std::string& value);
  std::string GetText() const;

 private:
  class Parser;

  std::vector<std::string> lines_;
  std::vector<Setting> settings_;
  std::vector<SettingsFault> faults_;
};

// Writes a file whole or not at all: into a temporary file beside it, which then takes its name. A file that is there
// is replaced, or with `isNew` kept. False, with nothing left behind, if that fails; the last error tells why.
bool WriteWholeFile(const Path& file, const std::string& text, bool isNew);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SETTINGS_FILE_H_
