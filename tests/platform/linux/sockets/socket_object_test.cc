#include <thread>

#include "../../socket_fixture.h"

namespace kestrun::test {
namespace {

using SocketObject = SocketTest;

TEST_F(SocketObject, AHardCloseResetsThePeer) {
  const auto [left, right] = Pair();
  const linger hard{1, 0};
  ASSERT_EQ(setsockopt(left, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard), 0);
  closesocket(left);
  char byte;
  EXPECT_TRUE(Fails(recv(right, &byte, 1, 0), WSAECONNRESET));
}

// Of every kind of socket, whether the close comes before or during the select.
TEST_F(SocketObject, ASelectEndsWhenAnotherThreadClosesASocket) {
  const SOCKET idle = Make(SOCK_DGRAM);
  const SOCKET connected = Pair()[0];
  for (const SOCKET victim : {listening_, connected, Make(SOCK_DGRAM), Make(SOCK_DGRAM), Make(SOCK_DGRAM)}) {
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
}

}  // namespace
}  // namespace kestrun::test
