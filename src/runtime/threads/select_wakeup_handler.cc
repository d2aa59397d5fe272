// A select can only be ended by a socket. Windows has neither pipes nor events in a select, and no pairs of connected
// sockets, so the pair is built by connecting to a listener of one's own on the loopback address.
#include "runtime/threads/select_wakeup_handler.h"

#include <utility>

#include "runtime/threads/reactor_exception.h"

namespace kestrun {

namespace {

constexpr int kBacklog = 5;
// An int: on some systems the constant is an enumerator of the global namespace, which would bring the C library's
// socket() into the lookup of the call below.
constexpr int kStream = SOCK_STREAM;

// Owns a socket while the pair is being built.
class UniqueSocket {
 public:
  explicit UniqueSocket(SOCKET handle) : handle_(handle) {}
  ~UniqueSocket() {
    if (IsValid()) closesocket(handle_);
  }
  UniqueSocket(const UniqueSocket&) = delete;
  UniqueSocket& operator=(const UniqueSocket&) = delete;

  bool IsValid() const { return handle_ != INVALID_SOCKET; }
  SOCKET Get() const { return handle_; }
  SOCKET Release() { return std::exchange(handle_, INVALID_SOCKET); }

 private:
  SOCKET handle_;
};

sockaddr_in Loopback(u16 port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  return address;
}

bool Listen(SOCKET listener, const sockaddr_in& address) {
  return bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != SOCKET_ERROR &&
         listen(listener, kBacklog) != SOCKET_ERROR;
}

// Accepts the connection and checks that it is the writer's: any other process may have connected to the listener
// first.
SOCKET AcceptFrom(SOCKET listener, SOCKET writer) {
  sockaddr_in peer{};
  sockaddr_in own{};
  int peerSize = sizeof(peer);
  int ownSize = sizeof(own);
  UniqueSocket reader(accept(listener, reinterpret_cast<sockaddr*>(&peer), &peerSize));
  if (!reader.IsValid() || getsockname(writer, reinterpret_cast<sockaddr*>(&own), &ownSize) == SOCKET_ERROR ||
      peer.sin_port != own.sin_port) {
    return INVALID_SOCKET;
  }
  return reader.Release();
}

// Makes a side non-blocking: a thread that wakes must not wait for room in the buffer, nor the loop for a byte.
// TCP_NODELAY, because otherwise a wake-up may wait for the acknowledgement of the one before. No child process
// inherits the pair.
bool Prepare(SOCKET socket) {
  u_long nonBlocking = 1;
  int noDelay = 1;
  SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
  return ioctlsocket(socket, FIONBIO, &nonBlocking) != SOCKET_ERROR &&
         setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay), sizeof(noDelay)) !=
             SOCKET_ERROR;
}

void ShutAndClose(int* handle) {
  if (*handle == -1) return;
  shutdown(static_cast<SOCKET>(*handle), SD_BOTH);
  closesocket(static_cast<SOCKET>(*handle));
  *handle = -1;
}

}  // namespace

SelectWakeupHandler::SelectWakeupHandler(u16 firstPort) {
  for (u16 i = 0; i < kPortCount; ++i) {
    if (Connect(static_cast<u16>(firstPort + i))) return;
  }
  throw ReactorException(WSAEADDRINUSE, "WakeupHandler could not bind to any port!");
}

SelectWakeupHandler::~SelectWakeupHandler() {
  Close();
}

bool SelectWakeupHandler::Connect(u16 port) {
  sockaddr_in address = Loopback(port);
  UniqueSocket listener(socket(AF_INET, kStream, 0));
  if (!listener.IsValid() || !Listen(listener.Get(), address)) return false;
  UniqueSocket writer(socket(AF_INET, kStream, 0));
  if (!writer.IsValid() ||
      connect(writer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == SOCKET_ERROR) {
    return false;
  }
  UniqueSocket reader(AcceptFrom(listener.Get(), writer.Get()));
  if (!reader.IsValid() || !Prepare(reader.Get()) || !Prepare(writer.Get())) return false;
  readSocket_ = static_cast<int>(reader.Release());
  writeSocket_ = static_cast<int>(writer.Release());
  return true;
}

void SelectWakeupHandler::Wake() {
  const Lock lock(lock_);
  const char byte = 0;
  // A full buffer loses nothing: the loop has wake-ups to read then.
  if (writeSocket_ != -1) send(static_cast<SOCKET>(writeSocket_), &byte, 1, 0);
}

int SelectWakeupHandler::GetHandle() {
  const Lock lock(lock_);
  return readSocket_;
}

bool SelectWakeupHandler::HandleEvent() {
  const Lock lock(lock_);
  char byte = 0;
  return recv(static_cast<SOCKET>(readSocket_), &byte, 1, 0) >= 0;
}

void SelectWakeupHandler::Close() {
  const Lock lock(lock_);
  ShutAndClose(&writeSocket_);
  ShutAndClose(&readSocket_);
}

}  // namespace kestrun
