#include "transport/sockets/local_host.h"

namespace kestrun {

namespace {

// A function's static, so that it exists before any other static object asks for it. Without a lock; see the header.
std::string& LocalHostName() {
  static std::string name;
  return name;
}

}  // namespace

void SetLocalHostName(const std::string& name) {
  LocalHostName() = name;
}

bool HasLocalHostName() {
  return !LocalHostName().empty();
}

std::string GetLocalHostName() {
  return HasLocalHostName() ? LocalHostName() : "127.0.0.1";
}

}  // namespace kestrun
