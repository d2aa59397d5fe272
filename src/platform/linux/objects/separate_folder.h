// Folders of named objects that one build has for itself, beside that of the user's other builds.
//
// Such a folder bears the name of the user's usual folder, with the id of the process that made it, and that process
// removes it. Each process that uses the folder holds a shared lock on it. The lock tells a folder in use from one that
// a killed process has left, even if the processes run in different containers.
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

// Removes this user's folders beside `folder` whose makers have ended and which no process holds.
void RemoveAbandonedFolders(const std::string& folder);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_SEPARATE_FOLDER_H_
