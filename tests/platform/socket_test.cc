#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "platform/win32.h"

namespace kestrun::test {
namespace {

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
    const sockaddr_in address = Loopback(0);
    EXPECT_EQ(bind(made, Raw(address), sizeof address), 0) << WSAGetLastError();
    return made;
  }
  SOCKET Listening() {
    const SOCKET made = Bound(SOCK_STREAM);
    EXPECT_EQ(listen(made, 5), 0) << WSAGetLastError();
    return made;
  }
  void Connect(SOCKET from, SOCKET to) {
    const sockaddr_in address = NameOf(to);
    EXPECT_EQ(connect(from, Raw(address), sizeof address), 0) << WSAGetLastError();
  }
  std::array<SOCKET, 2> Pair() {
    const SOCKET listening = Listening();
    const SOCKET first = Make(SOCK_STREAM);
    Connect(first, listening);
    return {first, Own(accept(listening, nullptr, nullptr))};
  }

  static sockaddr_in Loopback(u_short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static const sockaddr* Raw(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }
  static sockaddr_in NameOf(SOCKET of) {
    sockaddr_in address{};
    int size = sizeof address;
    EXPECT_EQ(getsockname(of, reinterpret_cast<sockaddr*>(&address), &size), 0) << WSAGetLastError();
    EXPECT_EQ(size, static_cast<int>(sizeof address));
    return address;
  }
  static void SetNonBlocking(SOCKET of) {
    u_long on = 1;
    EXPECT_EQ(ioctlsocket(of, static_cast<long>(FIONBIO), &on), 0);
  }
  static std::string Receive(SOCKET from, int most = 100) {
    std::string text(static_cast<std::size_t>(most), '\0');
    const int received = recv(from, text.data(), most, 0);
    if (received < 0) return "error " + std::to_string(WSAGetLastError());
    return text.substr(0, static_cast<std::size_t>(received));
  }
  static void Send(SOCKET to, const std::string& text) {
    EXPECT_EQ(send(to, text.data(), static_cast<int>(text.size()), 0), static_cast<int>(text.size()));
  }
  // Whether a call failed with this error.
  static bool Fails(int result, int error) { return result == SOCKET_ERROR && WSAGetLastError() == error; }

 private:
  std::vector<SOCKET> owned_;
};

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

TEST_F(SocketTest, BytesTravelAndTheEndIsSeen) {
  const auto [left, right] = Pair();
  Send(left, "hello");
  u_long available = 0;
  fd_set readable = SetOf({right});
  EXPECT_EQ(select(0, &readable, nullptr, nullptr, &atMost20Seconds), 1);
  EXPECT_EQ(ioctlsocket(right, static_cast<long>(FIONREAD), &available), 0);
  EXPECT_EQ(available, 5u);
  EXPECT_EQ(Receive(right, 2), "he");
  EXPECT_EQ(Receive(right), "llo");
  shutdown(left, SD_SEND);
  EXPECT_EQ(Receive(right), "");
  EXPECT_TRUE(Fails(send(left, "x", 1, 0), WSAESHUTDOWN));
  Send(right, "back");
  EXPECT_EQ(Receive(left), "back");
}

TEST_F(SocketTest, ANonBlockingSocketTellsThatItWouldBlock) {
  const auto [left, right] = Pair();
  SetNonBlocking(left);
  EXPECT_EQ(Receive(left), "error " + std::to_string(WSAEWOULDBLOCK));
  const std::string block(1 << 16, 'x');
  int sent = 0;
  while (sent >= 0) sent = send(left, block.data(), static_cast<int>(block.size()), 0);
  EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
  EXPECT_NE(right, INVALID_SOCKET);
}

TEST_F(SocketTest, AConnectionToNobodyIsRefused) {
  const SOCKET deaf = Bound(SOCK_STREAM);
  const sockaddr_in address = NameOf(deaf);
  EXPECT_TRUE(Fails(connect(Make(SOCK_STREAM), Raw(address), sizeof address), WSAECONNREFUSED));
}

TEST_F(SocketTest, AFailedAttemptIsExceptionalAndNotWritable) {
  const SOCKET deaf = Bound(SOCK_STREAM);
  const SOCKET caller = Make(SOCK_STREAM);
  SetNonBlocking(caller);
  const sockaddr_in address = NameOf(deaf);
  ASSERT_TRUE(Fails(connect(caller, Raw(address), sizeof address), WSAEWOULDBLOCK));
  fd_set writable = SetOf({caller});
  fd_set exceptional = SetOf({caller});
  EXPECT_EQ(select(0, nullptr, &writable, &exceptional, &atMost20Seconds), 1);
  EXPECT_FALSE(FD_ISSET(caller, &writable));
  EXPECT_TRUE(FD_ISSET(caller, &exceptional));
}

TEST_F(SocketTest, AnAttemptThatWorksMakesTheSocketWritable) {
  const SOCKET listening = Listening();
  const SOCKET caller = Make(SOCK_STREAM);
  SetNonBlocking(caller);
  const sockaddr_in address = NameOf(listening);
  const int result = connect(caller, Raw(address), sizeof address);
  ASSERT_TRUE(result == 0 || WSAGetLastError() == WSAEWOULDBLOCK);
  fd_set writable = SetOf({caller});
  EXPECT_EQ(select(0, nullptr, &writable, nullptr, &atMost20Seconds), 1);
  EXPECT_TRUE(FD_ISSET(caller, &writable));
}

TEST_F(SocketTest, AddressesAreHeldAndReported) {
  const SOCKET listening = Listening();
  const sockaddr_in address = NameOf(listening);
  EXPECT_NE(address.sin_port, 0);
  EXPECT_TRUE(Fails(bind(Make(SOCK_STREAM), Raw(address), sizeof address), WSAEADDRINUSE));
  EXPECT_TRUE(Fails(listen(Make(SOCK_STREAM), 5), WSAEINVAL));
  sockaddr_in none{};
  int size = sizeof none;
  EXPECT_TRUE(Fails(getsockname(Make(SOCK_STREAM), reinterpret_cast<sockaddr*>(&none), &size), WSAEINVAL));
  EXPECT_TRUE(Fails(getpeername(listening, reinterpret_cast<sockaddr*>(&none), &size), WSAENOTCONN));
  const SOCKET caller = Make(SOCK_STREAM);
  Connect(caller, listening);
  sockaddr_in from{};
  size = sizeof from;
  Own(accept(listening, reinterpret_cast<sockaddr*>(&from), &size));
  EXPECT_EQ(from.sin_port, NameOf(caller).sin_port);
  sockaddr_in peer{};
  EXPECT_EQ(getpeername(caller, reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(peer.sin_port, address.sin_port);
}

TEST_F(SocketTest, APortIsFreeAgainAfterItsConnections) {
  const SOCKET listening = Listening();
  const sockaddr_in address = NameOf(listening);
  const SOCKET caller = Make(SOCK_STREAM);
  Connect(caller, listening);
  const SOCKET accepted = Own(accept(listening, nullptr, nullptr));
  // The side that closes first is the one whose port lingers.
  closesocket(accepted);
  closesocket(listening);
  EXPECT_EQ(Receive(caller), "");
  closesocket(caller);
  EXPECT_EQ(bind(Make(SOCK_STREAM), Raw(address), sizeof address), 0) << WSAGetLastError();
}

TEST_F(SocketTest, DatagramsKeepTheirBordersAndTellTheirSender) {
  const SOCKET left = Bound(SOCK_DGRAM);
  const SOCKET right = Bound(SOCK_DGRAM);
  const sockaddr_in to = NameOf(right);
  for (const char* text : {"first", "", "second, which is longer"}) {
    EXPECT_GE(sendto(left, text, static_cast<int>(std::string(text).size()), 0, Raw(to), sizeof to), 0);
  }
  sockaddr_in from{};
  int size = sizeof from;
  char buffer[10];
  EXPECT_EQ(recvfrom(right, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &size), 5);
  EXPECT_EQ(from.sin_port, NameOf(left).sin_port);
  EXPECT_EQ(recv(right, buffer, sizeof buffer, 0), 0);
  EXPECT_TRUE(Fails(recv(right, buffer, sizeof buffer, 0), WSAEMSGSIZE));
  EXPECT_EQ(std::string(buffer, sizeof buffer), "second, wh");
}

TEST_F(SocketTest, BroadcastNeedsItsOption) {
  const SOCKET sender = Make(SOCK_DGRAM);
  sockaddr_in everyone = Loopback(9);
  everyone.sin_addr.s_addr = INADDR_BROADCAST;
  EXPECT_TRUE(Fails(sendto(sender, "x", 1, 0, Raw(everyone), sizeof everyone), WSAEACCES));
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
  Send(left, "x");
  readable = SetOf({left, right});
  fd_set writable = SetOf({right});
  fd_set onlyRight = SetOf({right});
  ASSERT_EQ(select(0, &onlyRight, nullptr, nullptr, &atMost20Seconds), 1);
  EXPECT_EQ(select(0, &readable, &writable, nullptr, nullptr), 2);
  EXPECT_FALSE(FD_ISSET(left, &readable));
  EXPECT_TRUE(FD_ISSET(right, &readable));
  EXPECT_TRUE(FD_ISSET(right, &writable));
}

TEST_F(SocketTest, SelectServes256Sockets) {
  fd_set all = SetOf({});
  SOCKET last = INVALID_SOCKET;
  for (int i = 0; i < FD_SETSIZE; ++i) {
    last = Bound(SOCK_DGRAM);
    FD_SET(last, &all);
  }
  const sockaddr_in to = NameOf(last);
  EXPECT_EQ(sendto(Bound(SOCK_DGRAM), "x", 1, 0, Raw(to), sizeof to), 1);
  EXPECT_EQ(select(0, &all, nullptr, nullptr, &atMost20Seconds), 1);
  EXPECT_TRUE(FD_ISSET(last, &all));
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

TEST_F(SocketTest, AnAcceptEndsWhenAnotherThreadClosesTheSocket) {
  for (int round = 0; round < 20; ++round) {
    const SOCKET listening = Listening();
    SOCKET accepted = 0;
    std::thread acceptor([&] { accepted = accept(listening, nullptr, nullptr); });
    if (round % 2 == 0) std::this_thread::yield();
    closesocket(listening);
    acceptor.join();
    EXPECT_EQ(accepted, INVALID_SOCKET);
  }
}

TEST_F(SocketTest, HostNamesResolve) {
  const hostent* const local = gethostbyname("localhost");
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(local->h_addrtype, AF_INET);
  EXPECT_EQ(inet_ntoa(*reinterpret_cast<in_addr*>(local->h_addr_list[0])), std::string("127.0.0.1"));
  EXPECT_EQ(gethostbyname("no.such.host.invalid"), nullptr);
  EXPECT_EQ(inet_addr("127.0.0.1"), htonl(INADDR_LOOPBACK));
  EXPECT_EQ(inet_addr("localhost"), INADDR_NONE);
  char name[256] = {};
  EXPECT_EQ(gethostname(name, sizeof name), 0);
  EXPECT_STRNE(name, "");
}

}  // namespace
}  // namespace kestrun::test
