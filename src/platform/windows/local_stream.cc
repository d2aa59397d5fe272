// Windows has had local stream sockets since version 10, but Wine has none (socket() fails with 10047). So the layer
// offers none here, and clients ask for slots through a table in shared memory instead.
#include "platform/local_stream.h"

namespace kestrun::platform {

const bool kHasLocalStreams = false;

std::unique_ptr<LocalStream> LocalStream::Connect(const std::string&) {
  return nullptr;
}

std::unique_ptr<LocalServer> LocalServer::Listen(const std::string&, std::string& error) {
  error = "this system has no local streams";
  return nullptr;
}

}  // namespace kestrun::platform
