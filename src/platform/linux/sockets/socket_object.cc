#include "platform/linux/sockets/socket_object.h"

#include <cerrno>
#include <cstddef>

#include "platform/linux/objects/handle_table.h"

namespace kestrun::platform {

namespace {

struct Pair {
  int error;
  int winsock;
};

constexpr Pair kErrors[] = {
    {EINTR, WSAEINTR},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EINVAL, WSAEINVAL},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {EAGAIN, WSAEWOULDBLOCK},
    {EINPROGRESS, WSAEWOULDBLOCK},
    {EALREADY, WSAEALREADY},
    {ENOTSOCK, WSAENOTSOCK},
    {EDESTADDRREQ, WSAEDESTADDRREQ},
    {EMSGSIZE, WSAEMSGSIZE},
    {EPROTOTYPE, WSAEPROTOTYPE},
    {ENOPROTOOPT, WSAENOPROTOOPT},
    {EPROTONOSUPPORT, WSAEPROTONOSUPPORT},
    {ESOCKTNOSUPPORT, WSAESOCKTNOSUPPORT},
    {EOPNOTSUPP, WSAEOPNOTSUPP},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {ECONNABORTED, WSAECONNABORTED},
    {ECONNRESET, WSAECONNRESET},
    {EPIPE, WSAECONNRESET},
    {ENOBUFS, WSAENOBUFS},
    {ENOMEM, WSAENOBUFS},
    {EISCONN, WSAEISCONN},
    {ENOTCONN, WSAENOTCONN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {ECONNREFUSED, WSAECONNREFUSED},
    {EHOSTDOWN, WSAEHOSTDOWN},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
};

// Addresses are passed to the system as they are, so their layouts must be equal.
static_assert(sizeof(sockaddr) == sizeof(::sockaddr) && sizeof(sockaddr_in) == sizeof(::sockaddr_in));
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(::sockaddr_in, sin_port));
static_assert(offsetof(sockaddr_in, sin_addr) == offsetof(::sockaddr_in, sin_addr));

}  // namespace

std::shared_ptr<SocketObject> LookUpSocket(SOCKET socket) {
  auto object = LookUp<SocketObject>(reinterpret_cast<HANDLE>(socket));
  if (!object) WSASetLastError(WSAENOTSOCK);
  return object;
}

// WSAEINVAL for a number without a match, so that a failure never looks like success.
int WinsockErrorFromErrno(int error) {
  for (const Pair& pair : kErrors) {
    if (pair.error == error) return pair.winsock;
  }
  return WSAEINVAL;
}

int FailFromErrno(const SocketObject& object) {
  const int error = errno;
  if (object.IsClosed()) {
    WSASetLastError(WSAEINTR);
  } else if (error == EPIPE && object.IsSendShutDown()) {
    WSASetLastError(WSAESHUTDOWN);
  } else {
    WSASetLastError(WinsockErrorFromErrno(error));
  }
  return SOCKET_ERROR;
}

}  // namespace kestrun::platform
