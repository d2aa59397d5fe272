// Thrown by the operations of sockets.
//
// The code is the Winsock error, or -1 if there is none. 0 stands for an end of the connection in order (Receive).
#ifndef KESTRUN_TRANSPORT_SOCKETS_SOCKET_EXCEPTION_H_
#define KESTRUN_TRANSPORT_SOCKETS_SOCKET_EXCEPTION_H_

#include <string>

#include "runtime/base/exception.h"
#include "runtime/base/types.h"

namespace kestrun {

class SocketException : public SystemException {
 public:
  explicit SocketException(const std::string& message) : SystemException(message, "SocketException") {}
  SocketException(i32 code, const std::string& message) : SystemException(code, message, "SocketException") {}
};

}  // namespace kestrun

#endif  // KESTRUN_TRANSPORT_SOCKETS_SOCKET_EXCEPTION_H_
