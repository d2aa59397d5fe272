// Handlers for tests of the reactor and of its loops.
#ifndef KESTRUN_TESTS_RUNTIME_THREADS_EVENT_HANDLERS_H_
#define KESTRUN_TESTS_RUNTIME_THREADS_EVENT_HANDLERS_H_

#include <atomic>
#include <functional>

#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/base/exception.h"
#include "runtime/base/handle.h"
#include "runtime/threads/event_handler.h"
#include "support/child.h"

namespace kestrun::test {

// As an int: some systems have the constant as an enumerator, whose scope would join the lookup of socket().
inline constexpr int kDatagrams = SOCK_DGRAM;
inline constexpr int kStream = SOCK_STREAM;

// Ten ports of this process alone, below those that systems give out by themselves.
inline u16 OwnPorts() {
  return static_cast<u16>(21000 + CurrentProcessId() % 1000 * 10);
}

inline sockaddr_in Loopback(u16 port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  return address;
}

// A handler that counts its calls and does what the test tells it.
class TestHandler : public EventHandler {
 public:
  TestHandler(int type, int handle) : type_(type), handle_(handle) {}

  int GetHandle() override {
    if (throws) throw SystemException("no handle", "SystemException");
    return handle_;
  }
  int GetHandleType() override { return type_; }
  u32 GetEvents() override { return events; }
  bool UsesThreadPool() override { return usesPool; }
  bool HandleEvent() override {
    ++calls;
    return onEvent ? onEvent() : true;
  }
  void Close() override {
    ++closes;
    handle_ = -1;
  }
  bool IsClosed() override { return closes > 0; }

  std::function<bool()> onEvent;
  u32 events = EventHandler::kRead;
  bool usesPool = false;
  bool throws = false;
  std::atomic<int> calls{0};
  std::atomic<int> closes{0};

 private:
  int type_;
  std::atomic<int> handle_;
};

class WaitableHandler : public TestHandler {
 public:
  WaitableHandler() : WaitableHandler(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {}
  void Signal() { SetEvent(event_.Get()); }

 private:
  explicit WaitableHandler(HANDLE event)
      : TestHandler(EventHandler::kWaitable, platform::HandleToInt(event)), event_(event) {}
  UniqueHandle event_;
};

// A datagram socket that can send to itself.
class SocketHandler : public TestHandler {
 public:
  SocketHandler() : SocketHandler(socket(AF_INET, kDatagrams, 0)) {}
  ~SocketHandler() override { CloseSocket(); }

  void Signal() { sendto(socket_, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)); }
  bool Take() {
    char byte;
    return recv(socket_, &byte, 1, 0) == 1;
  }
  void CloseSocket() {
    if (socket_ != INVALID_SOCKET) closesocket(socket_);
    socket_ = INVALID_SOCKET;
  }

 private:
  explicit SocketHandler(SOCKET handle)
      : TestHandler(EventHandler::kSelectable, static_cast<int>(handle)), socket_(handle) {
    int size = sizeof(address_);
    bind(socket_, reinterpret_cast<const sockaddr*>(&address_), size);
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size);
    onEvent = [this] { return Take(); };
  }
  SOCKET socket_;
  sockaddr_in address_ = Loopback(0);
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_RUNTIME_THREADS_EVENT_HANDLERS_H_
