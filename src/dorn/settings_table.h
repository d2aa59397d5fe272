// Lists the keys of the settings file.
//
// The programs that read a key name it and its default where they use it; this table repeats them for dorn, which
// checks a file against it, writes the first file from it and shows it to the user. docs/settings.md describes the
// keys.
//
// The table is made at its first use and never changes. Any thread; nothing fails.
#ifndef KESTRUN_DORN_SETTINGS_TABLE_H_
#define KESTRUN_DORN_SETTINGS_TABLE_H_

#include <string>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun::dorn {

struct SettingsKey {
  const char* section;
  const char* name;
  u32 type;                 // IniValue::kBool or kInt
  std::string standard;     // the value without the key, as text behind the type
  std::string recommended;  // what first settings say; empty: they leave the key out
  const char* meaning;

  std::string GetFullName() const { return std::string(section) + "/" + name; }
  // "int" or "bool", as it stands in front of the value.
  const char* GetTypeName() const;
};

// In the order in which they are shown.
const std::vector<SettingsKey>& GetSettingsKeys();
// Null for an unknown key. Names are compared with their case, as the reader does it.
const SettingsKey* FindSettingsKey(const std::string& section, const std::string& name);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SETTINGS_TABLE_H_
