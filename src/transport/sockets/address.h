// The name of one end of a message channel: a kind and a text. A value type; the key of the dispatcher's channel table.
//
//   kind     word   text                 full form
//   kNone           ""                   ""
//   kIpc     ipc    region name          ipc:zelvo_client_ipc_1234.1297000001
//   kTcp     tcp    host "/" port        tcp:127.0.0.1/5000
//   kUdp     udp    host "/" port        udp:127.0.0.1/5000
//   kInt     int    any text             int:anything
//
// An address belongs to a message in memory and is never sent. To check one of kind tcp or udp resolves its host,
// which may block.
#ifndef KESTRUN_TRANSPORT_SOCKETS_ADDRESS_H_
#define KESTRUN_TRANSPORT_SOCKETS_ADDRESS_H_

#include <string>

#include "runtime/base/exception.h"
#include "runtime/base/types.h"
#include "transport/sockets/socket_address.h"

namespace kestrun {

class AddressException : public SystemException {
 public:
  explicit AddressException(const std::string& message);
};

class Address {
 public:
  static constexpr u32 kNone = 0;
  static constexpr u32 kIpc = 1;
  static constexpr u32 kTcp = 2;
  static constexpr u32 kUdp = 3;
  static constexpr u32 kInt = 4;

  Address() = default;
  // These two throw AddressException "Invalid Address: ..." for what is no valid address. The empty full form is the
  // empty address.
  Address(u32 kind, const std::string& text);
  explicit Address(const std::string& fullForm);
  // No check.
  Address(const SocketAddress& address, u32 kind, bool resolve);

  u32 GetKind() const { return kind_; }
  const std::string& GetText() const { return text_; }
  std::string ToString() const;
  // The host of a tcp or udp address; the local host's name for ipc and int; empty for the empty address. Belongs to
  // the described interface; the program itself does not use it.
  std::string GetHost() const;

  bool IsValid() const;
  bool IsLocal() const;
  // False unless the kind is tcp or udp, the port is 1 to 65535 and the host is known.
  bool GetSocketAddress(SocketAddress& out) const;

  friend bool operator==(const Address& left, const Address& right) {
    return left.kind_ == right.kind_ && left.text_ == right.text_;
  }
  // Ordered by kind, then by text.
  friend bool operator<(const Address& left, const Address& right);

 private:
  u32 kind_ = kNone;
  std::string text_;
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_ADDRESS_H_
