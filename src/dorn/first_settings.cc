#include "dorn/first_settings.h"

#include <string>

#include "dorn/report.h"
#include "platform/host.h"
#include "runtime/ini_file.h"
#include "runtime/system_utilities.h"

namespace kestrun::dorn {

namespace {

constexpr u32 kMaxStubs = 30;

}  // namespace

void WriteFirstSettings() {
  const Path file = GetCommonPath() / "Zelvo.ini";
  if (file.Exists()) return;
  IniFile settings;
  settings.Load(file);  // there is nothing to read, but this names the file
  settings.SetInt("LocalSettings/MaxConcurrentJobs", platform::UsableProcessors());
  settings.SetInt("LocalSettings/MaxStubs", kMaxStubs);
  settings.SetBool("LocalSettings/LoggingEnabled", true);
  for (const char* name :
       {"EagerScheduling", "CancelOrphanedJobs", "EnforceJobTimeout", "DiscardOutput", "ReclaimPlaces"}) {
    settings.SetBool(std::string("Extensions/") + name, true);
  }
  const std::string name = GetFullPath(file).ToString();
  if (file.CreateParentDirectories() && settings.Save()) {
    Print("wrote first settings to " + name);
  } else {
    PrintWarning("cannot write settings to " + name + ", defaults are used");
  }
}

}  // namespace kestrun::dorn
