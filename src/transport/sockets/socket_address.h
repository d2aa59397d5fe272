// A host and a port as numbers, in the form that the socket calls take: IPv4 only. A value type.
//
// A name that can't be resolved gives an address that is not valid; nothing here throws. Making one from a host name
// and IsLocal may block on a name lookup.
#ifndef KESTRUN_TRANSPORT_SOCKETS_SOCKET_ADDRESS_H_
#define KESTRUN_TRANSPORT_SOCKETS_SOCKET_ADDRESS_H_

#include <string>

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

class SocketAddress {
 public:
  // All zero, not valid.
  SocketAddress() = default;
  // `host` is an address in numbers or a name to be looked up.
  SocketAddress(const std::string& host, u16 port);
  // Any local interface.
  explicit SocketAddress(u16 port);
  // Copies at most GetSize() bytes.
  SocketAddress(const sockaddr* raw, u32 length);

  bool IsValid() const { return isValid_; }
  u16 GetPort() const;
  const sockaddr* GetRaw() const { return reinterpret_cast<const sockaddr*>(&address_); }
  u32 GetSize() const { return sizeof address_; }

  // The host's name with `resolve`, else the address in numbers. "<unknown host>" where there is none.
  std::string GetHostText(bool resolve) const;
  // Host text, "/", port.
  std::string ToString(bool resolve) const;

  // True if the address means this machine: 127.0.0.1 on any port, what "localhost" or this machine's name resolves to,
  // or the name given to SetLocalHostName if one was.
  bool IsLocal() const;

  // Bytewise.
  friend bool operator==(const SocketAddress& left, const SocketAddress& right) { return left.Compare(right) == 0; }
  friend bool operator<(const SocketAddress& left, const SocketAddress& right) { return left.Compare(right) < 0; }

 private:
  int Compare(const SocketAddress& other) const;

  sockaddr_in address_{};
  bool isValid_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_SOCKET_ADDRESS_H_
