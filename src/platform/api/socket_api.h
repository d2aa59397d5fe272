// Sockets with Winsock's contract: its error numbers, its select over an array of sockets, its closing rules.
//
// The C library has functions of the same names at global scope. The ones of this layer live in kestrun::platform and
// are brought into namespace kestrun, where they and their types hide the others: code in that namespace means
// Winsock's `connect` when it says `connect`. Constants (AF_INET, SOCK_STREAM, SO_BROADCAST ...) and the byte order
// functions are the system's own.
//
// A SOCKET is an entry of the handle table, not a descriptor. A socket may be closed while another thread is in a call
// on it: a select then ends with WSAENOTSOCK, every other call with WSAEINTR, and the descriptor stays open until that
// thread has left the call. A send never raises a signal. Failures are in WSAGetLastError, which is the thread's last
// error.
//
// Two sockets can't listen on one port, whether SO_REUSEADDR is set or not; a port whose last connection lingers is
// free.
#ifndef KESTRUN_PLATFORM_API_SOCKET_API_H_
#define KESTRUN_PLATFORM_API_SOCKET_API_H_

// These headers are included first, because their macros for select are replaced by Winsock's below.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "platform/api/base_api.h"

#undef FD_CLR
#undef FD_ISSET
#undef FD_SET
#undef FD_SETSIZE
#undef FD_ZERO
#undef SOCK_DGRAM
#undef SOCK_STREAM

#define FD_SETSIZE 256

// Plain numbers: the C library's are of an enumeration at global scope, whose `socket` an unqualified call would find.
#define SOCK_STREAM static_cast<int>(::SOCK_STREAM)
#define SOCK_DGRAM static_cast<int>(::SOCK_DGRAM)

#define SD_RECEIVE 0
#define SD_SEND 1
#define SD_BOTH 2

#define WSAEINTR 10004
#define WSAEACCES 10013
#define WSAEFAULT 10014
#define WSAEINVAL 10022
#define WSAEMFILE 10024
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAEALREADY 10037
#define WSAENOTSOCK 10038
#define WSAEDESTADDRREQ 10039
#define WSAEMSGSIZE 10040
#define WSAEPROTOTYPE 10041
#define WSAENOPROTOOPT 10042
#define WSAEPROTONOSUPPORT 10043
#define WSAESOCKTNOSUPPORT 10044
#define WSAEOPNOTSUPP 10045
#define WSAEAFNOSUPPORT 10047
#define WSAEADDRINUSE 10048
#define WSAEADDRNOTAVAIL 10049
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAENETRESET 10052
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOBUFS 10055
#define WSAEISCONN 10056
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTDOWN 10064
#define WSAEHOSTUNREACH 10065
#define WSAVERNOTSUPPORTED 10092
#define WSANOTINITIALISED 10093
#define WSAHOST_NOT_FOUND 11001
#define WSATRY_AGAIN 11002
#define WSANO_RECOVERY 11003
#define WSANO_DATA 11004

using SOCKET = std::uintptr_t;
#define INVALID_SOCKET (~static_cast<SOCKET>(0))
#define SOCKET_ERROR (-1)

struct WSADATA {
  WORD wVersion;
  WORD wHighVersion;
  char szDescription[257];
  char szSystemStatus[129];
};

#define MAKEWORD(low, high) \
  (static_cast<WORD>(static_cast<BYTE>(low) | (static_cast<WORD>(static_cast<BYTE>(high)) << 8)))

// Calls are counted; sockets can be made between the first start and the last clean-up.
int WSAStartup(WORD version, WSADATA* data);
int WSACleanup();
int WSAGetLastError();
void WSASetLastError(int error);

namespace kestrun::platform {

// The same bytes as the system's own structures.
struct in_addr {
  std::uint32_t s_addr;
};

struct sockaddr {
  std::uint16_t sa_family;
  char sa_data[14];
};

struct sockaddr_in {
  std::uint16_t sin_family;
  std::uint16_t sin_port;
  in_addr sin_addr;
  unsigned char sin_zero[8];
};

struct hostent {
  char* h_name;
  char** h_aliases;
  short h_addrtype;
  short h_length;
  char** h_addr_list;
};

struct linger {
  unsigned short l_onoff;
  unsigned short l_linger;
};

// A list of sockets, in the order in which they were added. What doesn't fit is dropped.
struct fd_set {
  unsigned fd_count;
  SOCKET fd_array[FD_SETSIZE];
};

inline void FD_ZERO(fd_set* set) {
  set->fd_count = 0;
}
void FD_SET(SOCKET socket, fd_set* set);
void FD_CLR(SOCKET socket, fd_set* set);
int __WSAFDIsSet(SOCKET socket, fd_set* set);
inline int FD_ISSET(SOCKET socket, fd_set* set) {
  return __WSAFDIsSet(socket, set);
}

SOCKET socket(int family, int type, int protocol);
int bind(SOCKET socket, const sockaddr* address, int length);
int listen(SOCKET socket, int backlog);
SOCKET accept(SOCKET socket, sockaddr* address, int* length);
int connect(SOCKET socket, const sockaddr* address, int length);
int send(SOCKET socket, const char* data, int length, int flags);
int sendto(SOCKET socket, const char* data, int length, int flags, const sockaddr* to, int toLength);
// A datagram that is longer than the buffer fills it and fails with WSAEMSGSIZE.
int recv(SOCKET socket, char* data, int length, int flags);
int recvfrom(SOCKET socket, char* data, int length, int flags, sockaddr* from, int* fromLength);
// `count` has no meaning. A connection attempt that failed shows in `exceptional` and never in `write`. No socket in
// any set: WSAEINVAL.
int select(int count, fd_set* read, fd_set* write, fd_set* exceptional, timeval* timeout);
int shutdown(SOCKET socket, int how);
int closesocket(SOCKET socket);
// FIONBIO and FIONREAD.
int ioctlsocket(SOCKET socket, long command, u_long* argument);
// Options with an int or BOOL value, SO_LINGER with a `linger`, SO_RCVTIMEO and SO_SNDTIMEO with DWORD milliseconds.
int setsockopt(SOCKET socket, int level, int option, const char* value, int length);
// SO_ERROR (as a Winsock number), SO_TYPE and the other options with an int value.
int getsockopt(SOCKET socket, int level, int option, char* value, int* length);
int getsockname(SOCKET socket, sockaddr* address, int* length);
int getpeername(SOCKET socket, sockaddr* address, int* length);

// IPv4 only. The results of these three stay valid until the thread's next such call.
hostent* gethostbyname(const char* name);
hostent* gethostbyaddr(const char* address, int length, int family);
char* inet_ntoa(in_addr address);
int gethostname(char* name, int length);
// INADDR_NONE for a text that is no address in numbers.
std::uint32_t inet_addr(const char* text);

}  // namespace kestrun::platform

namespace kestrun {

using platform::__WSAFDIsSet;
using platform::accept;
using platform::bind;
using platform::closesocket;
using platform::connect;
using platform::FD_CLR;
using platform::FD_ISSET;
using platform::fd_set;
using platform::FD_SET;
using platform::FD_ZERO;
using platform::gethostbyaddr;
using platform::gethostbyname;
using platform::gethostname;
using platform::getpeername;
using platform::getsockname;
using platform::getsockopt;
using platform::hostent;
using platform::in_addr;
using platform::inet_addr;
using platform::inet_ntoa;
using platform::ioctlsocket;
using platform::linger;
using platform::listen;
using platform::recv;
using platform::recvfrom;
using platform::select;
using platform::send;
using platform::sendto;
using platform::setsockopt;
using platform::shutdown;
using platform::sockaddr;
using platform::sockaddr_in;
using platform::socket;

}  // namespace kestrun

#endif  // KESTRUN_PLATFORM_API_SOCKET_API_H_
