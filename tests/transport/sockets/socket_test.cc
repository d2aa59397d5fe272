#include "transport/sockets/socket.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/expect_throw.h"
#include "transport/sockets/socket_stream.h"

namespace kestrun::test {
namespace {

constexpr u32 kLongMs = 20000;

class SocketsTest : public ::testing::Test {
 protected:
  SocketsTest() {
    WSADATA data;
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  ~SocketsTest() override { WSACleanup(); }

  static SocketAddress Loopback(u16 port) { return SocketAddress("127.0.0.1", port); }

  // A connection: `caller` has called, `accepted` was called.
  struct Connection {
    rc_ptr<TcpSocket> caller;
    rc_ptr<TcpSocket> accepted;
  };
  static Connection Connect(u32 timeoutMs = kLongMs) {
    const rc_ptr<ListenSocket> listening(new ListenSocket(Loopback(0), false));
    Connection made;
    made.caller = rc_ptr<TcpSocket>(new TcpSocket(listening->GetLocalAddress(), timeoutMs));
    made.accepted = rc_ptr<TcpSocket>(new TcpSocket(listening->Accept()));
    return made;
  }

  // Sends until there is no more room; the socket is non-blocking then.
  static void Fill(Socket& socket) {
    socket.SetBlocking(false);
    const std::vector<u8> block(1 << 16);
    try {
      for (;;) socket.Send(block.data(), static_cast<u32>(block.size()));
    } catch (const SocketException& error) {
      EXPECT_EQ(error.GetCode(), WSAEWOULDBLOCK);
      EXPECT_STREQ(error.what(), "In send()");
    }
  }

  static std::string Receive(Socket& socket) {
    char buffer[100];
    return std::string(buffer, socket.Receive(buffer, sizeof buffer));
  }

  // The text is that of a SystemException of any class.
  static void ExpectThrow(const std::function<void()>& call, i32 code, const std::string& text) {
    test::ExpectThrow<SystemException>(call, text, code);
  }
};

TEST_F(SocketsTest, BytesTravelAndTheEndThrows) {
  const auto [caller, accepted] = Connect();
  EXPECT_EQ(caller->Send("hello", 5), 5u);
  EXPECT_EQ(Receive(*accepted), "hello");
  EXPECT_EQ(caller->Send("hi", 2, kLongMs), 2u);
  EXPECT_EQ(Receive(*accepted), "hi");
  EXPECT_TRUE(caller->IsBlocking()) << "a timed send leaves the mode as it was";
  caller->SetBlocking(false);
  char byte;
  EXPECT_EQ(caller->Receive(&byte, 1), 0u) << "nothing there yet";
  EXPECT_EQ(caller->GetAvailable(), 0u);
  caller->Close();
  caller->Close();
  ExpectThrow([socket = caller] { socket->Send("x", 1); }, WSAENOTSOCK, "In send()");
  ExpectThrow([&, socket = accepted] { socket->Receive(&byte, 1); }, 0, "Socket closed in recv()");
  EXPECT_NE(accepted->GetDescriptor(), Socket::kInvalidDescriptor);
}

TEST_F(SocketsTest, AConnectionToNobodyFailsInTheWordsOfItsWay) {
  Socket deaf(AF_INET, SOCK_STREAM);
  deaf.Bind(Loopback(0), false);
  const SocketAddress address = deaf.GetLocalAddress();
  ExpectThrow([&] { TcpSocket caller(address, 0); }, WSAECONNREFUSED, "In connect()");
  ExpectThrow([&] { TcpSocket caller(address, 100); }, WSAETIMEDOUT, "Timeout waiting for connection");
}

TEST_F(SocketsTest, BoundAddressesAreKnownAndTakenOnce) {
  const rc_ptr<ListenSocket> listening(new ListenSocket(Loopback(0), false));
  const SocketAddress address = listening->GetLocalAddress();
  EXPECT_TRUE(address.IsValid());
  EXPECT_NE(address.GetPort(), 0);
  ExpectThrow([&] { ListenSocket second(address, false); }, WSAEADDRINUSE, "In bind()");
  EXPECT_FALSE(listening->GetPeerAddress().IsValid());
  const rc_ptr<TcpSocket> caller(new TcpSocket(address, kLongMs));
  EXPECT_TRUE(caller->GetPeerAddress() == address);
  TcpSocket accepted(listening->Accept());
  EXPECT_TRUE(accepted.GetPeerAddress() == caller->GetLocalAddress());
  EXPECT_EQ(accepted.GetType(), SOCK_STREAM);
  ExpectThrow([&] { accepted.Broadcast("x", 1, 9); }, WSAEACCES, "Broadcast not allowed on stream sockets.");
  listening->Close();
  ExpectThrow([&] { listening->Accept(); }, WSAENOTSOCK, "In accept()");
  ExpectThrow([] { Socket(AF_INET, SOCK_STREAM).Listen(); }, WSAEINVAL, "listen() failed.");
  ExpectThrow([] { TcpSocket none(Socket::kInvalidDescriptor); }, SystemException::kNoCode,
              "Bad socket handle passed to Socket ctor");
}

TEST_F(SocketsTest, DatagramsTellTheirSender) {
  const rc_ptr<UdpSocket> left(new UdpSocket(Loopback(0)));
  const rc_ptr<UdpSocket> right(new UdpSocket(Loopback(0)));
  EXPECT_EQ(left->SendTo("one", 3, right->GetLocalAddress()), 3u);
  EXPECT_EQ(Receive(*right), "one");
  EXPECT_TRUE(right->GetPeerAddress() == left->GetLocalAddress());
  EXPECT_EQ(right->SendTo("", 0, left->GetLocalAddress()), 0u);
  char byte;
  ExpectThrow([&] { left->Receive(&byte, 1); }, 0, "Socket closed in recvfrom()");
}

TEST_F(SocketsTest, WritersOfOneStreamDoNotMix) {
  const auto [caller, accepted] = Connect();
  SocketStream stream(caller.Get(), kLongMs);
  constexpr std::size_t kPiece = 300000;
  std::vector<std::thread> writers;
  for (const char letter : {'a', 'b', 'c'}) {
    writers.emplace_back(
        [&stream, piece = std::string(kPiece, letter)] { stream.Write(piece.data(), static_cast<u32>(piece.size())); });
  }
  std::string received;
  while (received.size() < 3 * kPiece) received += Receive(*accepted);
  for (std::thread& writer : writers) writer.join();
  int changes = 0;
  for (std::size_t i = 1; i < received.size(); ++i) changes += received[i] != received[i - 1] ? 1 : 0;
  EXPECT_EQ(changes, 2);
}

TEST_F(SocketsTest, AStreamTellsHowFarItGot) {
  const auto [caller, accepted] = Connect();
  Fill(*caller);
  SocketStream writer(caller.Get(), 20);
  ExpectThrow([&] { writer.Write("xyz", 3); }, WSAETIMEDOUT,
              "SocketStream::Write() failed (sent 0 of 3 bytes): Timeout in send()");
  EXPECT_EQ(caller->GetDescriptor(), Socket::kInvalidDescriptor) << "a timed send that gives up closes";
  SocketStream reader(accepted.Get(), 20);
  std::vector<char> buffer(1 << 20);
  const auto readToEnd = [&] {
    for (;;) reader.Read(buffer.data(), static_cast<u32>(buffer.size()));
  };
  ExpectThrow(readToEnd, 0, "SocketStream::Read():Socket closed in recv()");
}

TEST_F(SocketsTest, AWriteWithoutALimitReportsItAfterTheFirstPiece) {
  const auto [caller, accepted] = Connect();
  SocketStream writer(caller.Get(), 0);
  ExpectThrow([&] { writer.Write("xyz", 3); }, WSAETIMEDOUT, "SocketStream::Write() timed-out (sent 3 of 3 bytes)");
  EXPECT_EQ(Receive(*accepted), "xyz");
  EXPECT_EQ(writer.Write("", 0), 0u);
}

}  // namespace
}  // namespace kestrun::test
