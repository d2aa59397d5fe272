// Typed settings in a text file.
//
// A setting's key is "Section/name", or the name alone for the section "default"; keys keep their case. In the file:
//
//     [LocalSettings]
//     LoggingEnabled=bool:true
//     MaxConcurrentJobs=int:8
//     Greeting=string:any text, colons included
//
// Nothing is trimmed. An empty line ends the settings of its section. A value without ":" is a string; a value with
// another word before its first ":" is dropped. If a name is in a section twice, the first line counts.
//
// Any thread may call any operation: each takes the lock of the settings for its whole duration, Load for each setting.
// Processes are not guarded against each other.
#ifndef KESTRUN_RUNTIME_FILES_INI_FILE_H_
#define KESTRUN_RUNTIME_FILES_INI_FILE_H_

#include <map>
#include <string>

#include "runtime/base/critical_section.h"
#include "runtime/base/types.h"
#include "runtime/files/ini_format_exception.h"
#include "runtime/files/path.h"

namespace kestrun {

class IniLines;

// One setting: the type says which of the payloads counts.
struct IniValue {
  static constexpr u32 kNone = 0;
  static constexpr u32 kBool = 1;
  static constexpr u32 kInt = 2;
  static constexpr u32 kString = 3;

  u32 type = kNone;
  std::string stringValue;
  bool boolValue = false;
  u32 intValue = 0;
};

class IniFile {
 public:
  using FormatException = IniFormatException;

  IniFile() = default;
  IniFile(const IniFile&) = delete;
  IniFile& operator=(const IniFile&) = delete;

  // Replaces all settings by those of the file. True if the file was read completely; false for a missing file, one
  // without a section, or one with a malformed line, whose settings up to that line stay.
  bool Load(const Path& path);

  // Writes all settings to the path of the last Load, and replaces the file. Without settings nothing is written, and
  // the result is true.
  bool Save();

  // IniValue::kBool and so on; kNone for a key that is absent.
  u32 GetType(const std::string& key);

  // True and the value if the key exists and has that type; otherwise `value` stays untouched.
  bool Get(const std::string& key, bool& value);
  bool Get(const std::string& key, std::string& value);
  bool Get(const std::string& key, u32& value);

  // The default if the key is absent or has another type.
  bool GetBool(const std::string& key, bool defaultValue);
  std::string GetString(const std::string& key, const std::string& defaultValue);
  u32 GetInt(const std::string& key, u32 defaultValue);

  // Adds or replaces; false, with nothing changed, if the key holds another type.
  bool SetBool(const std::string& key, bool value);
  bool SetString(const std::string& key, const std::string& value);
  bool SetInt(const std::string& key, u32 value);

  void Remove(const std::string& key);
  void Clear();

 private:
  void LoadSection(const IniLines& lines, const std::string& section);
  void StoreText(const std::string& key, const std::string& text);
  bool Set(const std::string& key, const IniValue& value);
  bool Find(const std::string& key, u32 type, IniValue& value);

  Path path_;
  CriticalSection lock_;
  std::map<std::string, IniValue> settings_;  // guarded by lock_
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_INI_FILE_H_
