#include "dorn/settings.h"

#include <algorithm>
#include <cstdio>

#include "dorn/exit_codes.h"
#include "dorn/report.h"
#include "dorn/settings_table.h"
#include "protocol/limits.h"
#include "runtime/base/error_text.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/ini_file.h"
#include "runtime/files/text_file.h"

namespace kestrun::dorn {

namespace {

const char* const kJobsKey = "LocalSettings/MaxConcurrentJobs";

// Lists the recommended keys that were written or named before, so that only those that a newer version adds are named.
Path GetKnownKeysPath() {
  return GetCommonPath() / "Zelvo.known";
}

std::string NameOf(const Path& file) {
  return GetFullPath(file).ToString();
}

std::string LastErrorText() {
  std::string text = GetErrorText(GetLastError());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == '.')) text.pop_back();
  return text;
}

std::string ValueOf(const SettingsKey& key, const std::string& text) {
  return std::string(key.GetTypeName()) + ":" + text;
}

std::vector<const SettingsKey*> ListMissing(const SettingsFile& file) {
  std::vector<const SettingsKey*> missing;
  for (const SettingsKey& key : GetSettingsKeys()) {
    if (!key.recommended.empty() && file.Find(key.section, key.name) == nullptr) missing.push_back(&key);
  }
  return missing;
}

std::string ListRecommended() {
  std::string text;
  for (const SettingsKey& key : GetSettingsKeys()) {
    if (!key.recommended.empty()) text += key.GetFullName() + "\r\n";
  }
  return text;
}

void AddMissing(SettingsFile& file) {
  for (const SettingsKey* key : ListMissing(file)) file.Add(key->section, key->name, ValueOf(*key, key->recommended));
}

// Stricter than the reader, which takes a number up to its first other character, and text without one as 0.
bool IsWholeNumber(const std::string& text) {
  const std::size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
  return text.size() > sign && std::all_of(text.begin() + static_cast<std::ptrdiff_t>(sign), text.end(),
                                           [](char c) { return c >= '0' && c <= '9'; });
}

// For a whole number. Nine digits always fit, so that std::stoul does not throw.
bool IsJobCount(const std::string& number) {
  return number[0] != '-' && number.size() <= 9 && std::stoul(number) <= kMostConcurrentJobs;
}

// Empty if the value is what its key wants. Otherwise it tells what programs make of the value: with a wrong type they
// use the default, and with the right type the reader always finds some value.
std::string FindCause(const SettingsKey& key, const std::string& value) {
  const std::string type = key.GetTypeName();
  const std::string otherwise = ", so the default " + key.standard + " is used";
  const std::size_t colon = value.find(':');
  if (colon == std::string::npos) return "has no type in front (" + type + ":" + value + ")" + otherwise;
  if (value.substr(0, colon) != type) return "is no \"" + type + ":\"" + otherwise;
  const std::string text = value.substr(colon + 1);
  if (key.type == IniValue::kInt && !IsWholeNumber(text)) return "is no whole number";
  if (key.type == IniValue::kBool && text != "true" && text != "false")
    return "is neither true nor false and counts as false";
  return "";
}

void PrintFault(const std::string& file, const SettingsFault& fault, bool isError) {
  const std::string text = file + ":" + std::to_string(fault.line) + ": " + fault.cause;
  if (isError) {
    PrintError(text);
  } else {
    PrintWarning(text);
  }
}

struct ShownValue {
  std::string value;
  std::string origin;
};

// The value as all programs read it.
ShownValue Show(const SettingsKey& key, const SettingsFile& file, IniFile& settings) {
  const std::string name = key.GetFullName();
  const SettingsFile::Setting* const setting = file.Find(key.section, key.name);
  if (setting == nullptr) return {key.standard, "default"};
  const std::string line = "line " + std::to_string(setting->line);
  if (settings.GetType(name) != key.type) return {key.standard, "default, " + line + " is wrong"};
  if (key.type == IniValue::kBool) return {settings.GetBool(name, false) ? "true" : "false", line};
  return {std::to_string(static_cast<i32>(settings.GetInt(name, 0))), line};
}

}  // namespace

Path GetSettingsPath() {
  return GetCommonPath() / "Zelvo.ini";
}

void WriteFirstSettings() {
  const Path path = GetSettingsPath();
  if (path.Exists()) return;
  SettingsFile file;
  AddMissing(file);
  if (path.CreateParentDirectories() && WriteWholeFile(path, file.GetText(), true)) {
    Print("wrote first settings to " + NameOf(path));
    WriteWholeFile(GetKnownKeysPath(), ListRecommended(), false);
  } else if (!path.Exists()) {  // else another dorn has just written it
    PrintWarning("cannot write settings to " + NameOf(path) + " (" + LastErrorText() + "), defaults are used");
  }
}

std::vector<ValueFault> FindValueFaults(const SettingsFile& file) {
  std::vector<ValueFault> faults;
  for (const SettingsFile::Setting& setting : file.GetSettings()) {
    const SettingsKey* const key = FindSettingsKey(setting.section, setting.name);
    if (key == nullptr) {
      faults.push_back({{setting.line, "there is no setting " + setting.name + " in [" + setting.section + "]"}});
      continue;
    }
    const std::string cause = FindCause(*key, setting.value);
    if (!cause.empty()) {
      faults.push_back({{setting.line, setting.name + "=" + setting.value + " " + cause}});
    } else if (key->GetFullName() == kJobsKey && !IsJobCount(setting.value.substr(setting.value.find(':') + 1))) {
      faults.push_back({{setting.line, setting.name + "=" + setting.value + " is not between 0 and " +
                                           std::to_string(kMostConcurrentJobs)},
                        true});
    }
  }
  return faults;
}

bool CheckSettings(const SettingsFile& file) {
  const std::string name = NameOf(GetSettingsPath());
  bool isUsable = true;
  for (const SettingsFault& fault : file.GetFaults()) PrintFault(name, fault, false);
  for (const ValueFault& fault : FindValueFaults(file)) {
    PrintFault(name, fault.fault, fault.isError);
    if (fault.isError) isUsable = false;
  }
  return isUsable;
}

void TellOfMissingSettings(const SettingsFile& file) {
  // Keys in lines that are not read would be named as missing.
  if (!file.GetFaults().empty()) return;
  std::string known;
  std::string error;
  const bool hasKnown = GetKnownKeysPath().Exists() && ReadTextFile(GetKnownKeysPath(), &known, nullptr, &error);
  // A file without extensions was not written by any dorn: what it leaves out is its author's choice.
  if (!hasKnown && !file.HasSection("Extensions")) return;
  std::string names;
  for (const SettingsKey* key : ListMissing(file)) {
    // To add such a key would change nothing.
    if (key->recommended == key->standard) continue;
    if (known.find(key->GetFullName() + "\r\n") == std::string::npos)
      names += (names.empty() ? "" : ", ") + key->GetFullName();
  }
  if (names.empty()) return;
  Print("these recommended settings are not in " + NameOf(GetSettingsPath()) + ": " + names +
        " (\"dorn --settings update\" adds them)");
  WriteWholeFile(GetKnownKeysPath(), ListRecommended(), false);
}

int ListSettings() {
  const Path path = GetSettingsPath();
  SettingsFile file;
  const bool isThere = file.Load(path);
  IniFile settings;
  settings.Load(path);
  std::printf("%s%s\n", NameOf(path).c_str(), isThere ? "" : " (not there)");
  std::string section;
  for (const SettingsKey& key : GetSettingsKeys()) {
    if (section != key.section) std::printf("\n[%s]\n", (section = key.section).c_str());
    const ShownValue shown = Show(key, file, settings);
    std::printf("  %-18s = %-6s  %-10s  %s\n", key.name, shown.value.c_str(), shown.origin.c_str(), key.meaning);
  }
  return CheckSettings(file) ? 0 : kExitFailure;
}

int UpdateSettings() {
  const Path path = GetSettingsPath();
  SettingsFile file;
  if (!file.Load(path) && path.Exists()) {
    PrintError("cannot read " + NameOf(path));
    return kExitFailure;
  }
  const std::vector<const SettingsKey*> missing = ListMissing(file);
  // Keys in lines that are not read would be added a second time.
  if (!file.GetFaults().empty()) {
    CheckSettings(file);
    PrintError("the file's lines are to be mended first");
    return kExitFailure;
  }
  AddMissing(file);
  if (!missing.empty() && !(path.CreateParentDirectories() && WriteWholeFile(path, file.GetText(), false))) {
    PrintError("cannot write " + NameOf(path) + ": " + LastErrorText());
    return kExitFailure;
  }
  for (const SettingsKey* key : missing) {
    Print("added " + key->GetFullName() + "=" + ValueOf(*key, key->recommended));
  }
  if (missing.empty()) Print("nothing is missing in " + NameOf(path));
  WriteWholeFile(GetKnownKeysPath(), ListRecommended(), false);
  return 0;
}

}  // namespace kestrun::dorn
