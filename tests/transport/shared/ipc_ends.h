// Both ends of IPC connections, for tests in one process.
#ifndef KESTRUN_TESTS_TRANSPORT_IPC_ENDS_H_
#define KESTRUN_TESTS_TRANSPORT_IPC_ENDS_H_

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "runtime/base/rc_ptr.h"
#include "support/names.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun::test {

// Longer than any step takes; only a failing test waits that long.
inline constexpr u32 kLongMs = 30000;

// A listener with a name that no other test uses, and one connection to it.
struct IpcEnds {
  const std::string name = UniqueName();
  rc_ptr<IpcSocket> listener{new IpcSocket()};
  rc_ptr<IpcSocket> server;
  rc_ptr<IpcSocket> client;

  void Listen() { ASSERT_TRUE(listener->Listen(name)); }
  void Meet() {
    Listen();
    Connect();
  }
  void Connect() {
    auto accepted = Accept();
    client = new IpcSocket();
    ASSERT_TRUE(client->Connect(name, kLongMs));
    server = accepted.get();
    ASSERT_TRUE(server);
  }
  std::future<rc_ptr<IpcSocket>> Accept() {
    return std::async(std::launch::async, [this] { return listener->Accept(); });
  }
};

inline std::string ReadText(IpcSocket& socket, u32 length, u32 timeoutMs = kLongMs) {
  std::string text(length, '\0');
  text.resize(socket.Read(text.data(), length, timeoutMs).count);
  return text;
}

inline IpcSocket::Result WriteText(IpcSocket& socket, const std::string& text, u32 timeoutMs = 0) {
  return socket.Write(text.data(), static_cast<u32>(text.size()), timeoutMs);
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_TRANSPORT_IPC_ENDS_H_
