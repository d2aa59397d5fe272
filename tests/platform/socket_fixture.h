// Sockets on the loopback interface that are closed with the test.
#ifndef KESTRUN_TESTS_PLATFORM_SOCKET_FIXTURE_H_
#define KESTRUN_TESTS_PLATFORM_SOCKET_FIXTURE_H_

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "platform/win32.h"

namespace kestrun::test {

class SocketTest : public ::testing::Test {
 protected:
  SocketTest() {
    WSADATA data;
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    EXPECT_EQ(data.wVersion, MAKEWORD(2, 2));
  }
  ~SocketTest() override {
    for (const SOCKET owned : owned_) closesocket(owned);
    WSACleanup();
  }

  SOCKET Own(SOCKET made) {
    EXPECT_NE(made, INVALID_SOCKET) << WSAGetLastError();
    owned_.push_back(made);
    return made;
  }
  SOCKET Make(int type) { return Own(socket(AF_INET, type, 0)); }

  // On the loopback interface, with a port that the system chooses.
  SOCKET Bound(int type) {
    const SOCKET made = Make(type);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(made, Raw(address), sizeof address), 0) << WSAGetLastError();
    return made;
  }
  SOCKET Listening() {
    const SOCKET made = Bound(SOCK_STREAM);
    EXPECT_EQ(listen(made, 5), 0) << WSAGetLastError();
    return made;
  }
  // A connection to listening_.
  std::array<SOCKET, 2> Pair() {
    listening_ = Listening();
    const SOCKET first = Make(SOCK_STREAM);
    const sockaddr_in address = NameOf(listening_);
    EXPECT_EQ(connect(first, Raw(address), sizeof address), 0) << WSAGetLastError();
    return {first, Own(accept(listening_, nullptr, nullptr))};
  }

  static const sockaddr* Raw(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }
  static sockaddr_in NameOf(SOCKET of) {
    sockaddr_in address{};
    int size = sizeof address;
    EXPECT_EQ(getsockname(of, reinterpret_cast<sockaddr*>(&address), &size), 0) << WSAGetLastError();
    EXPECT_EQ(size, static_cast<int>(sizeof address));
    return address;
  }
  // Whether a call failed with this error.
  static bool Fails(int result, int error) { return result == SOCKET_ERROR && WSAGetLastError() == error; }

  SOCKET listening_ = INVALID_SOCKET;

 private:
  std::vector<SOCKET> owned_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_SOCKET_FIXTURE_H_
