#include "socket_fixture.h"

#include <thread>

namespace kestrun::test {
namespace {

fd_set SetOf(std::initializer_list<SOCKET> sockets) {
  fd_set set;
  FD_ZERO(&set);
  for (const SOCKET one : sockets) FD_SET(one, &set);
  return set;
}

// select takes them without const, and leaves them alone.
timeval atOnce{0, 0};
timeval atMost20Seconds{20, 0};

TEST(SocketStartTest, NothingWorksBeforeTheStart) {
  EXPECT_EQ(socket(AF_INET, SOCK_STREAM, 0), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
}

TEST_F(SocketTest, APortIsFreeAgainAfterItsConnections) {
  const auto [caller, accepted] = Pair();
  const sockaddr_in address = NameOf(accepted);
  // The side that closes first is the one whose port lingers.
  closesocket(accepted);
  closesocket(listening_);
  char byte;
  EXPECT_EQ(recv(caller, &byte, 1, 0), 0);
  closesocket(caller);
  EXPECT_EQ(bind(Make(SOCK_STREAM), Raw(address), sizeof address), 0) << WSAGetLastError();
}

TEST_F(SocketTest, SetsAreListsWithoutDoublesOfAtMost256) {
  fd_set set = SetOf({4, 8, 4});
  EXPECT_EQ(set.fd_count, 2u);
  FD_CLR(4, &set);
  EXPECT_FALSE(FD_ISSET(4, &set));
  EXPECT_TRUE(FD_ISSET(8, &set));
  for (SOCKET number = 1; number <= 300; ++number) FD_SET(number * 4, &set);
  EXPECT_EQ(set.fd_count, 256u);
}

TEST_F(SocketTest, SelectLeavesInTheSetsWhatIsReady) {
  const auto [left, right] = Pair();
  fd_set readable = SetOf({left, right});
  EXPECT_EQ(select(0, &readable, nullptr, nullptr, &atOnce), 0);
  EXPECT_EQ(readable.fd_count, 0u);
  EXPECT_EQ(send(left, "x", 1, 0), 1);
  readable = SetOf({left, right});
  fd_set writable = SetOf({right});
  fd_set onlyRight = SetOf({right});
  ASSERT_EQ(select(0, &onlyRight, nullptr, nullptr, &atMost20Seconds), 1);
  EXPECT_EQ(select(0, &readable, &writable, nullptr, nullptr), 2);
  EXPECT_FALSE(FD_ISSET(left, &readable));
  EXPECT_TRUE(FD_ISSET(right, &readable));
  EXPECT_TRUE(FD_ISSET(right, &writable));
}

TEST_F(SocketTest, SelectOnNothingOrOnNoSocketFails) {
  fd_set set = SetOf({});
  EXPECT_TRUE(Fails(select(0, &set, nullptr, nullptr, &atOnce), WSAEINVAL));
  const SOCKET gone = Make(SOCK_STREAM);
  closesocket(gone);
  set = SetOf({gone});
  EXPECT_TRUE(Fails(select(0, &set, nullptr, nullptr, &atOnce), WSAENOTSOCK));
  EXPECT_TRUE(Fails(closesocket(gone), WSAENOTSOCK));
  EXPECT_TRUE(Fails(send(gone, "x", 1, 0), WSAENOTSOCK));
}

// Whether the close comes before or during the other thread's call, that call must end, and fail.
TEST_F(SocketTest, AReceiveEndsWhenAnotherThreadClosesTheSocket) {
  for (int round = 0; round < 50; ++round) {
    const bool isStream = round % 2 == 0;
    const SOCKET victim = isStream ? Pair()[0] : Bound(SOCK_DGRAM);
    int error = 0;
    std::thread receiver([&] {
      char byte;
      if (recv(victim, &byte, 1, 0) == SOCKET_ERROR) error = WSAGetLastError();
    });
    if (round % 4 < 2) std::this_thread::yield();
    closesocket(victim);
    receiver.join();
    EXPECT_NE(error, 0);
  }
}

}  // namespace
}  // namespace kestrun::test
