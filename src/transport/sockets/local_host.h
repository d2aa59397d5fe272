// The name by which this process knows its own machine: process-wide, empty at start.
//
// Stored once, before threads that read it exist.
#ifndef KESTRUN_TRANSPORT_SOCKETS_LOCAL_HOST_H_
#define KESTRUN_TRANSPORT_SOCKETS_LOCAL_HOST_H_

#include <string>

namespace kestrun {

void SetLocalHostName(const std::string& name);
bool HasLocalHostName();

// The stored name, "127.0.0.1" while there is none.
std::string GetLocalHostName();

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_LOCAL_HOST_H_
