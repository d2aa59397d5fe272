#include "transport/sockets/socket_address.h"

#include <algorithm>
#include <cstring>

#include "transport/sockets/local_host.h"

namespace kestrun {

namespace {

constexpr char kUnknownHost[] = "<unknown host>";
constexpr char kLoopback[] = "127.0.0.1";

}  // namespace

SocketAddress::SocketAddress(const std::string& host, u16 port) : SocketAddress(port) {
  // Addresses in numbers need no look-up, which may block.
  const auto numeric = inet_addr(host.c_str());
  if (numeric != INADDR_NONE) {
    address_.sin_addr.s_addr = numeric;
    return;
  }
  const hostent* entry = gethostbyname(host.c_str());
  isValid_ = entry != nullptr && entry->h_addr_list[0] != nullptr;
  if (isValid_) std::memcpy(&address_.sin_addr, entry->h_addr_list[0], sizeof address_.sin_addr);
}

SocketAddress::SocketAddress(u16 port) : isValid_(true) {
  address_.sin_family = AF_INET;
  address_.sin_port = htons(port);
}

SocketAddress::SocketAddress(const sockaddr* raw, u32 length) : isValid_(true) {
  std::memcpy(&address_, raw, std::min<size_t>(length, sizeof address_));
}

u16 SocketAddress::GetPort() const {
  return ntohs(address_.sin_port);
}

std::string SocketAddress::GetHostText(bool resolve) const {
  if (resolve) {
    const hostent* entry =
        gethostbyaddr(reinterpret_cast<const char*>(&address_.sin_addr), sizeof address_.sin_addr, AF_INET);
    return entry != nullptr && entry->h_name != nullptr ? entry->h_name : kUnknownHost;
  }
  const char* text = inet_ntoa(address_.sin_addr);
  return text != nullptr ? text : kUnknownHost;
}

std::string SocketAddress::ToString(bool resolve) const {
  return GetHostText(resolve) + "/" + std::to_string(GetPort());
}

bool SocketAddress::IsLocal() const {
  if (address_.sin_addr.s_addr == inet_addr(kLoopback)) return true;
  if (SocketAddress("localhost", GetPort()) == *this) return true;
  if (HasLocalHostName()) return GetHostText(false) == GetLocalHostName();
  char machine[255] = {};
  if (gethostname(machine, sizeof machine) != 0) return false;
  return SocketAddress(machine, GetPort()) == *this;
}

// Bytewise, so the unused bytes of the structure must be zero, as the initialisation makes them.
int SocketAddress::Compare(const SocketAddress& other) const {
  return std::memcmp(&address_, &other.address_, sizeof address_);
}

}  // namespace kestrun
