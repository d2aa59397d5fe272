#include "runtime/files/ini_file.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "runtime/files/ini_lines.h"

namespace kestrun {

namespace {

constexpr char kDefaultSection[] = "default";

std::string FullKey(const std::string& section, const std::string& key) {
  return section == kDefaultSection ? key : section + "/" + key;
}

// A number out of range becomes the nearest one that fits into 32 bits with a sign. Text that is no number is 0.
u32 ParseInt(const char* text) {
  const long long value = std::strtoll(text, nullptr, 10);
  return static_cast<u32>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

IniValue MakeBool(bool value) {
  IniValue result;
  result.type = IniValue::kBool;
  result.boolValue = value;
  return result;
}

IniValue MakeString(const std::string& value) {
  IniValue result;
  result.type = IniValue::kString;
  result.stringValue = value;
  return result;
}

IniValue MakeInt(u32 value) {
  IniValue result;
  result.type = IniValue::kInt;
  result.intValue = value;
  return result;
}

std::string ToText(const IniValue& value) {
  switch (value.type) {
    case IniValue::kBool:
      return value.boolValue ? "bool:true" : "bool:false";
    case IniValue::kInt:
      // Written with a sign, as ParseInt reads it.
      return "int:" + std::to_string(static_cast<i32>(value.intValue));
    default:
      return "string:" + value.stringValue;
  }
}

}  // namespace

bool IniFile::Load(const Path& path) {
  {
    const Lock lock(lock_);
    path_ = path;
    settings_.clear();
  }
  IniLines lines(path.ToString());
  if (!lines.Read()) return false;
  const std::vector<std::string> sections = lines.GetSections();
  try {
    for (const std::string& section : sections) LoadSection(lines, section);
  } catch (const FormatException&) {
    return false;
  }
  return !sections.empty();
}

void IniFile::LoadSection(const IniLines& lines, const std::string& section) {
  // All keys are read first, so that a malformed line, which throws here, keeps the whole section out.
  for (const std::string& key : lines.GetKeys(section)) {
    std::string text;
    if (lines.GetValue(section, key, text)) StoreText(FullKey(section, key), text);
  }
}

void IniFile::StoreText(const std::string& key, const std::string& text) {
  // An unknown word before the colon drops the setting: a newer version's types are not taken for text.
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    SetString(key, text);
    return;
  }
  const std::string type = text.substr(0, colon);
  const std::string value = text.substr(colon + 1);
  if (type == "int") {
    SetInt(key, ParseInt(value.c_str()));
  } else if (type == "bool") {
    SetBool(key, value == "true");
  } else if (type == "string") {
    SetString(key, value);
  }
}

// The text is made anew and not from the lines of the old file, whose comments do not survive.
bool IniFile::Save() {
  const Lock lock(lock_);
  IniLines lines(path_.ToString());
  for (const auto& [key, value] : settings_) {
    const std::size_t slash = key.find('/');
    const bool hasSection = slash != std::string::npos;
    lines.SetValue(hasSection ? key.substr(0, slash) : kDefaultSection, hasSection ? key.substr(slash + 1) : key,
                   ToText(value));
  }
  return lines.Write();
}

u32 IniFile::GetType(const std::string& key) {
  const Lock lock(lock_);
  const auto found = settings_.find(key);
  return found == settings_.end() ? IniValue::kNone : found->second.type;
}

bool IniFile::Find(const std::string& key, u32 type, IniValue& value) {
  const Lock lock(lock_);
  const auto found = settings_.find(key);
  if (found == settings_.end() || found->second.type != type) return false;
  value = found->second;
  return true;
}

bool IniFile::Get(const std::string& key, bool& value) {
  IniValue found;
  if (!Find(key, IniValue::kBool, found)) return false;
  value = found.boolValue;
  return true;
}

bool IniFile::Get(const std::string& key, std::string& value) {
  IniValue found;
  if (!Find(key, IniValue::kString, found)) return false;
  value = found.stringValue;
  return true;
}

bool IniFile::Get(const std::string& key, u32& value) {
  IniValue found;
  if (!Find(key, IniValue::kInt, found)) return false;
  value = found.intValue;
  return true;
}

bool IniFile::GetBool(const std::string& key, bool defaultValue) {
  Get(key, defaultValue);
  return defaultValue;
}

std::string IniFile::GetString(const std::string& key, const std::string& defaultValue) {
  std::string value = defaultValue;
  Get(key, value);
  return value;
}

u32 IniFile::GetInt(const std::string& key, u32 defaultValue) {
  Get(key, defaultValue);
  return defaultValue;
}

bool IniFile::Set(const std::string& key, const IniValue& value) {
  const Lock lock(lock_);
  // A setting keeps its type: code that reads it as another one would silently get its default.
  const auto [entry, isNew] = settings_.try_emplace(key, value);
  if (!isNew && entry->second.type != value.type) return false;
  entry->second = value;
  return true;
}

bool IniFile::SetBool(const std::string& key, bool value) {
  return Set(key, MakeBool(value));
}

bool IniFile::SetString(const std::string& key, const std::string& value) {
  return Set(key, MakeString(value));
}

bool IniFile::SetInt(const std::string& key, u32 value) {
  return Set(key, MakeInt(value));
}

void IniFile::Remove(const std::string& key) {
  const Lock lock(lock_);
  settings_.erase(key);
}

void IniFile::Clear() {
  const Lock lock(lock_);
  settings_.clear();
}

}  // namespace kestrun
