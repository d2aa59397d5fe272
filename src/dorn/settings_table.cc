#include "dorn/settings_table.h"

#include "platform/host.h"
#include "runtime/files/ini_file.h"

namespace kestrun::dorn {

const char* SettingsKey::GetTypeName() const {
  return type == IniValue::kInt ? "int" : "bool";
}

const std::vector<SettingsKey>& GetSettingsKeys() {
  constexpr const char* kLocal = "LocalSettings";
  constexpr const char* kExtensions = "Extensions";
  constexpr u32 kInt = IniValue::kInt;
  constexpr u32 kBool = IniValue::kBool;
  static const std::vector<SettingsKey> keys = {
      {kLocal, "MaxConcurrentJobs", kInt, "30", std::to_string(platform::UsableProcessors()), "tools that run at once"},
      {kLocal, "MaxStubs", kInt, "30", "30", "clients that talk to the master at once"},
      {kLocal, "IpcTimeout", kInt, "10000", "", "milliseconds to open a channel to the master"},
      {kLocal, "LoggingEnabled", kBool, "false", "false", "writes the log"},
      {kLocal, "DiagnosticFlags", kInt, "0", "", "16 adds debug records to the log"},
      {kExtensions, "TransparentTools", kBool, "false", "true",
       "a tool runs as without Kestrun, and also without a master"},
      {kExtensions, "EagerScheduling", kBool, "false", "true", "jobs start at once, not at the next tick"},
      {kExtensions, "CancelOrphanedJobs", kBool, "false", "true", "the jobs of a client that has gone are ended"},
      {kExtensions, "EnforceJobTimeout", kBool, "false", "true", "a tool is ended when the time of -t is over"},
      {kExtensions, "DiscardOutput", kBool, "false", "true", "the output of jobs that are done is not kept"},
      {kExtensions, "BuildHistory", kBool, "false", "true", "each build adds a line to what dorn --history shows"},
      {kExtensions, "ReclaimPlaces", kBool, "false", "true", "the client slot of a killed client is free again"},
  };
  return keys;
}

const SettingsKey* FindSettingsKey(const std::string& section, const std::string& name) {
  for (const SettingsKey& key : GetSettingsKeys()) {
    if (section == key.section && name == key.name) return &key;
  }
  return nullptr;
}

}  // namespace kestrun::dorn
