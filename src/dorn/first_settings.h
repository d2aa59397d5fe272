// The settings file that a first run leaves behind.
#ifndef KESTRUN_DORN_FIRST_SETTINGS_H_
#define KESTRUN_DORN_FIRST_SETTINGS_H_

namespace kestrun::dorn {

// Writes a settings file with recommended values if there is none, and says where in one line on the standard error
// stream. A file that cannot be written is a warning: everything runs on defaults then.
void WriteFirstSettings();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_FIRST_SETTINGS_H_
