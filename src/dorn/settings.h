// What dorn does with the user's settings file: writes a first one, warns of what is wrong in it, shows it.
//
// All of it concerns the file of RunSession's user; one thread at a time. What is said goes to the standard error
// stream, but for the listing.
#ifndef KESTRUN_DORN_SETTINGS_H_
#define KESTRUN_DORN_SETTINGS_H_

#include <string>
#include <vector>

#include "dorn/settings_file.h"
#include "runtime/files/path.h"

namespace kestrun::dorn {

// The settings file, which need not exist.
Path GetSettingsPath();

// Writes a settings file with recommended values if there is none, and says where. A file that can't be written whole
// is not written: that is a warning, and defaults are used.
void WriteFirstSettings();

// Warns of each line that does not do what it seems to say, with the file, the line and the cause. False if no master
// should be started with these settings. `file` is what stands in the settings file, also below.
bool CheckSettings(const SettingsFile& file);

// Names the recommended keys that the file lacks, but each only once: those that were named stand in a file beside it.
void TellOfMissingSettings(const SettingsFile& file);

// All keys with their value, where that comes from, and their meaning, on the standard output; then CheckSettings. The
// program's exit code.
int ListSettings();

// Adds the recommended keys that the file lacks. The program's exit code.
int UpdateSettings();

// A line's value does not do what it seems to say.
struct ValueFault {
  SettingsFault fault;
  bool isError = false;  // no master should run with it
};

// The faults of the settings that programs read: unknown keys, and values that are not what their key wants.
std::vector<ValueFault> FindValueFaults(const SettingsFile& file);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SETTINGS_H_
