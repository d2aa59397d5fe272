// The names under which clients find the master of an id.
#ifndef KESTRUN_PROTOCOL_NAMES_H_
#define KESTRUN_PROTOCOL_NAMES_H_

#include <string>

namespace kestrun {

// The semaphore whose places clients take.
inline std::string GetAccessName(const std::string& id) {
  return "zelvo_client_access_" + id;
}
inline std::string GetListeningName(const std::string& id) {
  return "zelvo_client_ipc_" + id;
}

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_NAMES_H_
