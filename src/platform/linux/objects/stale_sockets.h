// Socket files that killed processes left in the folder of the named objects.
//
// A server makes its socket under a draft name and renames it once it listens (local_server.cc); either file may be
// left. The function keeps no state and may be called from any thread, in several processes at once. It reports no
// failures: what can't be removed is tried again with the next sweep.
#ifndef KESTRUN_PLATFORM_LINUX_OBJECTS_STALE_SOCKETS_H_
#define KESTRUN_PLATFORM_LINUX_OBJECTS_STALE_SOCKETS_H_

#include <string>

namespace kestrun::platform {

// Separates the name of a socket file that does not listen yet from the id of the process that makes it.
inline constexpr char kDraftMark = '~';

// Removes the socket files of a folder on which no process listens. A draft stays as long as its process lives.
void RemoveStaleSockets(const std::string& folder);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_OBJECTS_STALE_SOCKETS_H_
