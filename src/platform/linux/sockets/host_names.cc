// Host names and addresses, IPv4 only.
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/sockets/socket_object.h"

namespace kestrun::platform {

namespace {

struct AddressListCloser {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// What a hostent points at.
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

hostent* FailResolving(int error) {
  WSASetLastError(error == EAI_NONAME  ? WSAHOST_NOT_FOUND
                  : error == EAI_AGAIN ? WSATRY_AGAIN
                  : error == EAI_FAIL  ? WSANO_RECOVERY
                                       : WSANO_DATA);
  return nullptr;
}

}  // namespace

hostent* gethostbyname(const char* name) {
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(name, nullptr, &wanted, &found);
  if (error != 0) return FailResolving(error);
  const std::unique_ptr<addrinfo, AddressListCloser> list(found);
  std::vector<in_addr> addresses;
  for (const addrinfo* item = found; item != nullptr; item = item->ai_next) {
    addresses.push_back({reinterpret_cast<const ::sockaddr_in*>(item->ai_addr)->sin_addr.s_addr});
  }
  return hostEntry.Make(name, std::move(addresses));
}

hostent* gethostbyaddr(const char* address, int length, int family) {
  if (family != AF_INET || length != static_cast<int>(sizeof(in_addr)) || address == nullptr) {
    WSASetLastError(WSAEFAULT);
    return nullptr;
  }
  ::sockaddr_in asked{};
  asked.sin_family = AF_INET;
  std::memcpy(&asked.sin_addr, address, sizeof asked.sin_addr);
  char name[NI_MAXHOST];
  const int error = getnameinfo(reinterpret_cast<const ::sockaddr*>(&asked), sizeof asked, name, sizeof name, nullptr,
                                0, NI_NAMEREQD);
  if (error != 0) return FailResolving(error);
  return hostEntry.Make(name, {in_addr{asked.sin_addr.s_addr}});
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
