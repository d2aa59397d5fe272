// Folders of named objects that one build has for itself, beside that of the user's other builds.
//
// Such a folder is named after the user's own and the process that made it, and is removed by that process. Each
// process that uses it holds a shared lock on it, by which one that a killed process has left behind is told from one
// in use, in whatever container its processes run.
//
// All functions may be called from any thread and keep no state.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_SEPARATE_FOLDER_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_SEPARATE_FOLDER_H_

#include <string>

namespace kestrun::platform {

// The path of a new one beside `folder`, for this process.
std::string NameSeparateFolder(const std::string& folder);

bool IsSeparateFolder(const std::string& path);

// Locks the open folder until `descriptor` is closed. False if it has been removed, or is just being removed.
bool HoldSeparateFolder(int descriptor);

// Removes those of this user beside `folder` whose makers have ended and that no process holds.
void RemoveAbandonedFolders(const std::string& folder);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_SEPARATE_FOLDER_H_
