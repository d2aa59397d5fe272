// Winsock's calls on sockets: making, connecting and closing them, and moving bytes.
//
// What differs from the system's own calls: a socket may be closed while another thread is in a call on it; a signal
// interrupts no call; a send to a closed connection raises no signal; two sockets can't listen on one port.
#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/linux/objects/handle_table.h"
#include "platform/linux/sockets/socket_object.h"

namespace {

std::atomic<int> startCount{0};

}  // namespace

int WSAStartup(WORD version, WSADATA* data) {
  constexpr WORD kHighest = MAKEWORD(2, 2);
  if ((version & 0xFF) == 0) return WSAVERNOTSUPPORTED;
  startCount.fetch_add(1);
  *data = {(version & 0xFF) < 2 ? version : kHighest, kHighest, "", ""};
  return 0;
}

int WSACleanup() {
  int count = startCount.load();
  while (count > 0) {
    if (startCount.compare_exchange_weak(count, count - 1)) return 0;
  }
  WSASetLastError(WSANOTINITIALISED);
  return SOCKET_ERROR;
}

int WSAGetLastError() {
  return static_cast<int>(GetLastError());
}

void WSASetLastError(int error) {
  SetLastError(static_cast<DWORD>(error));
}

namespace kestrun::platform {

namespace {

const ::sockaddr* SystemAddress(const sockaddr* address) {
  return reinterpret_cast<const ::sockaddr*>(address);
}

int Fail(int error) {
  WSASetLastError(error);
  return SOCKET_ERROR;
}

SOCKET NewSocket(FileDescriptor descriptor, bool isStream) {
  const HANDLE handle = AllocateHandle(std::make_shared<SocketObject>(std::move(descriptor), isStream));
  if (handle != nullptr) return reinterpret_cast<SOCKET>(handle);
  WSASetLastError(WSAEMFILE);
  return INVALID_SOCKET;
}

// Repeats `call` as long as a signal interrupts it: Winsock has no such error.
template <class Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// A blocking connect that a signal has interrupted goes on in the kernel, and calling connect again would fail with
// EALREADY. Waits for its end; -1 with errno if the attempt fails.
int FinishConnect(int descriptor) {
  pollfd wait{descriptor, POLLOUT, 0};
  if (Uninterrupted([&] { return poll(&wait, 1, -1); }) < 0) return -1;
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return -1;
  errno = error;
  return error == 0 ? 0 : -1;
}

// Winsock lets a port be bound again while connections of its last owner linger. Linux demands that both the binding
// socket and the lingering ones have set SO_REUSEADDR; accepted connections inherit it from their listener, so every
// stream socket sets it.
void AllowLingeringPort(const SocketObject& object) {
  const int on = 1;
  if (object.IsStream()) ::setsockopt(object.Descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

// Runs getsockname or getpeername; an address without a port is no address yet.
int GetName(SOCKET socket, sockaddr* address, int* length, int (*call)(int, ::sockaddr*, socklen_t*), int noPortError) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (address == nullptr || length == nullptr || *length < static_cast<int>(sizeof(sockaddr_in)))
    return Fail(WSAEFAULT);
  sockaddr_in found{};
  socklen_t size = sizeof found;
  if (call(object->Descriptor(), reinterpret_cast<::sockaddr*>(&found), &size) != 0) return FailFromErrno(*object);
  if (found.sin_port == 0) return Fail(noPortError);
  std::memcpy(address, &found, sizeof found);
  *length = sizeof found;
  return 0;
}

}  // namespace

SOCKET socket(int family, int type, int protocol) {
  if (startCount.load() == 0) {
    WSASetLastError(WSANOTINITIALISED);
    return INVALID_SOCKET;
  }
  FileDescriptor descriptor(::socket(family, type | SOCK_CLOEXEC, protocol));
  if (descriptor) return NewSocket(std::move(descriptor), type == SOCK_STREAM);
  WSASetLastError(WinsockErrorFromErrno(errno));
  return INVALID_SOCKET;
}

int bind(SOCKET socket, const sockaddr* address, int length) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (address == nullptr || length < static_cast<int>(sizeof(sockaddr_in))) return Fail(WSAEFAULT);
  const bool hasPort = reinterpret_cast<const sockaddr_in*>(address)->sin_port != 0;
  if (hasPort) AllowLingeringPort(*object);
  if (::bind(object->Descriptor(), SystemAddress(address), sizeof(sockaddr_in)) != 0) return FailFromErrno(*object);
  // Set after the bind, so that the system does not choose a port on which other connections linger.
  if (!hasPort) AllowLingeringPort(*object);
  return 0;
}

int listen(SOCKET socket, int backlog) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  ::sockaddr_in bound{};
  socklen_t size = sizeof bound;
  ::getsockname(object->Descriptor(), reinterpret_cast<::sockaddr*>(&bound), &size);
  if (object->IsStream() && bound.sin_port == 0) return Fail(WSAEINVAL);  // the system would pick a port unasked
  return ::listen(object->Descriptor(), backlog) == 0 ? 0 : FailFromErrno(*object);
}

SOCKET accept(SOCKET socket, sockaddr* address, int* length) {
  const auto object = LookUpSocket(socket);
  if (!object) return INVALID_SOCKET;
  // As in Winsock, the new socket blocks or does not block as the listening one does; on Linux it would always block.
  const int mode = fcntl(object->Descriptor(), F_GETFL) & O_NONBLOCK;
  sockaddr_in from{};
  socklen_t size = sizeof from;
  FileDescriptor accepted(Uninterrupted([&] {
    return ::accept4(object->Descriptor(), reinterpret_cast<::sockaddr*>(&from), &size,
                     SOCK_CLOEXEC | (mode != 0 ? SOCK_NONBLOCK : 0));
  }));
  if (!accepted) {
    FailFromErrno(*object);
    return INVALID_SOCKET;
  }
  if (address != nullptr && length != nullptr) {
    std::memcpy(address, &from, std::min(sizeof from, static_cast<std::size_t>(*length)));
    *length = sizeof from;
  }
  return NewSocket(std::move(accepted), true);
}

int connect(SOCKET socket, const sockaddr* address, int length) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (address == nullptr || length < static_cast<int>(sizeof(sockaddr_in))) return Fail(WSAEFAULT);
  int result = ::connect(object->Descriptor(), SystemAddress(address), sizeof(sockaddr_in));
  if (result != 0 && errno == EINTR) result = FinishConnect(object->Descriptor());
  object->SetConnecting(result != 0 && errno == EINPROGRESS);
  return result == 0 && !object->IsClosed() ? 0 : FailFromErrno(*object);
}

int send(SOCKET socket, const char* data, int length, int flags) {
  return sendto(socket, data, length, flags, nullptr, 0);
}

int sendto(SOCKET socket, const char* data, int length, int flags, const sockaddr* to, int toLength) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (length < 0) return Fail(WSAEFAULT);
  const ssize_t sent = Uninterrupted([&] {
    return ::sendto(object->Descriptor(), data, static_cast<std::size_t>(length), flags | MSG_NOSIGNAL,
                    SystemAddress(to), to != nullptr ? static_cast<socklen_t>(toLength) : 0);
  });
  return sent >= 0 ? static_cast<int>(sent) : FailFromErrno(*object);
}

int recv(SOCKET socket, char* data, int length, int flags) {
  return recvfrom(socket, data, length, flags, nullptr, nullptr);
}

int recvfrom(SOCKET socket, char* data, int length, int flags, sockaddr* from, int* fromLength) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (length < 0) return Fail(WSAEFAULT);
  // With MSG_TRUNC the kernel gives the whole length of a datagram, which tells whether it was cut off.
  const int allFlags = flags | (object->IsStream() ? 0 : MSG_TRUNC);
  sockaddr_in sender{};
  socklen_t size = sizeof sender;
  const ssize_t got = Uninterrupted([&] {
    return ::recvfrom(object->Descriptor(), data, static_cast<std::size_t>(length), allFlags,
                      reinterpret_cast<::sockaddr*>(&sender), &size);
  });
  if (got < 0) return FailFromErrno(*object);
  if (got == 0 && object->IsClosed()) return Fail(WSAEINTR);
  if (from != nullptr && fromLength != nullptr && size > 0) {
    std::memcpy(from, &sender, std::min(sizeof sender, static_cast<std::size_t>(*fromLength)));
    *fromLength = sizeof sender;
  }
  return got <= length ? static_cast<int>(got) : Fail(WSAEMSGSIZE);
}

int shutdown(SOCKET socket, int how) {
  static_assert(SD_RECEIVE == SHUT_RD && SD_SEND == SHUT_WR && SD_BOTH == SHUT_RDWR);
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (how != SD_RECEIVE) object->SetSendShutDown();
  return ::shutdown(object->Descriptor(), how) == 0 ? 0 : FailFromErrno(*object);
}

int closesocket(SOCKET socket) {
  const auto object = LookUpSocket(socket);
  if (!object || !ReleaseHandle(reinterpret_cast<HANDLE>(socket))) return Fail(WSAENOTSOCK);
  // With more references than this one, other threads are in calls on the socket and must be woken by a shutdown.
  // Otherwise it is only closed, because a shutdown would end the connection in order, where a linger of 0 seconds asks
  // for a reset.
  if (object.use_count() > 1) ::shutdown(object->Descriptor(), SHUT_RDWR);
  return 0;
}

int ioctlsocket(SOCKET socket, long command, u_long* argument) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  if (command != FIONBIO && command != FIONREAD) return Fail(WSAEINVAL);
  int value = *argument != 0 ? 1 : 0;
  if (ioctl(object->Descriptor(), static_cast<unsigned long>(command), &value) != 0) return FailFromErrno(*object);
  if (command == FIONREAD) *argument = static_cast<u_long>(value);
  return 0;
}

int setsockopt(SOCKET socket, int level, int option, const char* value, int length) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  const auto set = [&](const auto& systemValue) {
    const int result = ::setsockopt(object->Descriptor(), level, option, &systemValue, sizeof systemValue);
    return result == 0 ? 0 : FailFromErrno(*object);
  };
  const auto read = [&](auto& from) {
    if (value == nullptr || length < static_cast<int>(sizeof from)) return false;
    std::memcpy(&from, value, sizeof from);
    return true;
  };
  if (level == SOL_SOCKET && option == SO_LINGER) {
    linger given;
    if (!read(given)) return Fail(WSAEFAULT);
    return set(::linger{given.l_onoff, given.l_linger});
  }
  int given = 0;
  if (!read(given)) return Fail(WSAEFAULT);
  if (level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO)) {
    return set(timeval{given / 1000, given % 1000 * 1000L});
  }
  return set(given);
}

int getsockopt(SOCKET socket, int level, int option, char* value, int* length) {
  const auto object = LookUpSocket(socket);
  if (!object) return SOCKET_ERROR;
  int result = 0;
  socklen_t size = sizeof result;
  if (value == nullptr || length == nullptr || *length < static_cast<int>(size)) return Fail(WSAEFAULT);
  if (::getsockopt(object->Descriptor(), level, option, &result, &size) != 0) return FailFromErrno(*object);
  if (level == SOL_SOCKET && option == SO_ERROR && result != 0) result = WinsockErrorFromErrno(result);
  std::memcpy(value, &result, sizeof result);
  *length = sizeof result;
  return 0;
}

int getsockname(SOCKET socket, sockaddr* address, int* length) {
  return GetName(socket, address, length, ::getsockname, WSAEINVAL);
}

int getpeername(SOCKET socket, sockaddr* address, int* length) {
  return GetName(socket, address, length, ::getpeername, WSAENOTCONN);
}

}  // namespace kestrun::platform
