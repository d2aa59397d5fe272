// The file actions and attributes of one posix_spawn, empty at first and destroyed with this object.
//
// The caller fills the two members by the C library's calls. Used on one thread, around one start of a process.
#ifndef KESTRUN_PLATFORM_LINUX_HELPER_SPAWN_SETTINGS_H_
#define KESTRUN_PLATFORM_LINUX_HELPER_SPAWN_SETTINGS_H_

#include <spawn.h>

namespace kestrun::platform {

struct SpawnSettings {
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_HELPER_SPAWN_SETTINGS_H_
