// The names under which clients find the master of an id, and the variable by which they learn that they run in one of
// its jobs.
//
// Pure functions and constants. The names are part of the protocol: clients and masters of different versions meet by
// them.
#ifndef KESTRUN_PROTOCOL_NAMES_H_
#define KESTRUN_PROTOCOL_NAMES_H_

#include <string>

namespace kestrun {

// The semaphore that admits clients; its maximum is the number of client slots.
inline std::string GetAccessName(const std::string& id) {
  return "zelvo_client_access_" + id;
}
inline std::string GetListeningName(const std::string& id) {
  return "zelvo_client_ipc_" + id;
}

// The environment variable that a master sets to its id for the tools that it runs in its own environment.
inline constexpr const char* kJobVariable = "KESTRUN_JOB";

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_NAMES_H_
