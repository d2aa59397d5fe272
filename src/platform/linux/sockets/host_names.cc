// Host names and addresses, IPv4 only. The C library's look-ups are not used, because they load shared libraries
// (name_lookup.h).
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/linux/sockets/name_lookup.h"
#include "platform/linux/sockets/socket_object.h"

namespace kestrun::platform {

namespace {

// Owns what a hostent points at. One for each thread, as Winsock's contract has it: a result is valid until the
// thread's next call.
class HostEntry {
 public:
  hostent* Make(std::string name, std::vector<in_addr> addresses) {
    name_ = std::move(name);
    addresses_ = std::move(addresses);
    pointers_.clear();
    for (in_addr& address : addresses_) pointers_.push_back(reinterpret_cast<char*>(&address));
    pointers_.push_back(nullptr);
    entry_ = {name_.data(), &noAlias_, AF_INET, sizeof(in_addr), pointers_.data()};
    return &entry_;
  }

 private:
  std::string name_;
  std::vector<in_addr> addresses_;
  std::vector<char*> pointers_;
  char* noAlias_ = nullptr;
  hostent entry_{};
};

thread_local HostEntry hostEntry;

hostent* FailResolving() {
  WSASetLastError(h_errno == HOST_NOT_FOUND ? WSAHOST_NOT_FOUND
                  : h_errno == TRY_AGAIN    ? WSATRY_AGAIN
                  : h_errno == NO_RECOVERY  ? WSANO_RECOVERY
                                            : WSANO_DATA);
  return nullptr;
}

}  // namespace

hostent* gethostbyname(const char* name) {
  std::vector<in_addr> addresses;
  for (const ::in_addr& found : LookUpAddresses(name)) addresses.push_back({found.s_addr});
  return addresses.empty() ? FailResolving() : hostEntry.Make(name, std::move(addresses));
}

hostent* gethostbyaddr(const char* address, int length, int family) {
  if (family != AF_INET || length != static_cast<int>(sizeof(in_addr)) || address == nullptr) {
    WSASetLastError(WSAEFAULT);
    return nullptr;
  }
  ::in_addr asked{};
  std::memcpy(&asked, address, sizeof asked);
  const std::string name = LookUpName(asked);
  return name.empty() ? FailResolving() : hostEntry.Make(name, {in_addr{asked.s_addr}});
}

char* inet_ntoa(in_addr address) {
  thread_local char text[INET_ADDRSTRLEN];
  return const_cast<char*>(inet_ntop(AF_INET, &address, text, sizeof text));
}

int gethostname(char* name, int length) {
  if (length > 0 && ::gethostname(name, static_cast<std::size_t>(length)) == 0) return 0;
  WSASetLastError(WSAEFAULT);
  return SOCKET_ERROR;
}

std::uint32_t inet_addr(const char* text) {
  return ::inet_addr(text);
}

}  // namespace kestrun::platform
