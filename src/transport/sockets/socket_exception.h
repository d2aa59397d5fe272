// Thrown by the sockets. The code is the Winsock error, or -1 where there is none.
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
