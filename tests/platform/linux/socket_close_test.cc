#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "platform/win32.h"

namespace kestrun::test {
namespace {

class SocketCloseTest : public ::testing::Test {
 protected:
  SocketCloseTest() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    listening_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    int size = sizeof address;
    EXPECT_EQ(bind(listening_, raw, size), 0);
    EXPECT_EQ(listen(listening_, 5), 0);
    EXPECT_EQ(getsockname(listening_, raw, &size), 0);
    left_ = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(left_, raw, size), 0);
    right_ = accept(listening_, nullptr, nullptr);
  }
  ~SocketCloseTest() override {
    for (const SOCKET one : {listening_, left_, right_}) closesocket(one);
    WSACleanup();
  }

  SOCKET listening_;
  SOCKET left_;
  SOCKET right_;
};

TEST_F(SocketCloseTest, AHardCloseResetsThePeer) {
  const linger hard{1, 0};
  ASSERT_EQ(setsockopt(left_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard), 0);
  closesocket(left_);
  char byte;
  EXPECT_EQ(recv(right_, &byte, 1, 0), SOCKET_ERROR);
  EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
}

// Of every kind of socket, whether the close comes before or during the select.
TEST_F(SocketCloseTest, ASelectEndsWhenAnotherThreadClosesASocket) {
  const SOCKET idle = socket(AF_INET, SOCK_DGRAM, 0);
  SOCKET victims[] = {std::exchange(listening_, INVALID_SOCKET), std::exchange(left_, INVALID_SOCKET), INVALID_SOCKET,
                      INVALID_SOCKET, INVALID_SOCKET};
  for (SOCKET& victim : victims) {
    if (victim == INVALID_SOCKET) victim = socket(AF_INET, SOCK_DGRAM, 0);
    int result = 0;
    int error = 0;
    std::thread selector([&] {
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(idle, &readable);
      FD_SET(victim, &readable);
      result = select(0, &readable, nullptr, nullptr, nullptr);
      error = WSAGetLastError();
    });
    std::this_thread::yield();
    closesocket(victim);
    selector.join();
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, WSAENOTSOCK);
  }
  closesocket(idle);
}

}  // namespace
}  // namespace kestrun::test
