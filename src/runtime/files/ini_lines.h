// The text of a settings file while it is read or written: its lines, without their line ends.
//
// Lookups walk the lines from the top and always meet the first of two equal sections or keys. What has been changed
// is written when the object goes, unless Write did so before. One thread at a time.
#ifndef KESTRUN_RUNTIME_FILES_INI_LINES_H_
#define KESTRUN_RUNTIME_FILES_INI_LINES_H_

#include <cstddef>
#include <string>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun {

class IniLines {
 public:
  explicit IniLines(const std::string& fileName) : fileName_(fileName) {}
  IniLines(const IniLines&) = delete;
  IniLines& operator=(const IniLines&) = delete;
  ~IniLines();

  // False if the file cannot be opened. A line of 1023 characters or more arrives in several pieces.
  bool Read();

  // In file order, with repetitions.
  std::vector<std::string> GetSections() const;
  // The names of the settings up to the end of the section or its first empty line. Throws IniFormatException.
  std::vector<std::string> GetKeys(const std::string& section) const;
  // Gives the text behind the "="; false if the section or the key does not exist.
  bool GetValue(const std::string& section, const std::string& key, std::string& value) const;

  // Replaces the line of the key, or adds one directly behind the header of the section, which is added if need be.
  void SetValue(const std::string& section, const std::string& key, const std::string& value);

  // Writes the lines in place of the file, if they have changed.
  bool Write();

 private:
  static constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

  std::size_t FindHeader(const std::string& section) const;
  std::size_t FindKey(std::size_t header, const std::string& key) const;

  std::string fileName_;
  std::vector<std::string> lines_;
  bool changed_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_INI_LINES_H_
