#include "messaging/socket_acceptor.h"

#include <gtest/gtest.h>

#include <string>

#include "transport/sockets/socket.h"

namespace kestrun {
namespace {

bool takes = false;
bool Offer(rc_ptr<TcpSocket> socket) {
  if (takes) socket->Send("taken", 5);
  return takes;
}

TEST(SocketAcceptor, GoesOnAfterARefusalUntilItIsClosed) {
  WSADATA data;
  ASSERT_EQ(WSAStartup(0x0202, &data), 0);
  const rc_ptr<SocketAcceptor> acceptor(new SocketAcceptor(u16{0}, MakeDelegate(&Offer), false));
  const SocketAddress address("127.0.0.1", acceptor->GetLocalAddress().GetPort());
  for (const bool isTaken : {false, true}) {
    takes = isTaken;
    TcpSocket caller(address, 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(acceptor->HandleEvent());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), isTaken ? "" : "SocketAcceptor : factory-function failed!\n");
    char text[5];
    if (isTaken) {
      EXPECT_EQ(caller.Receive(text, sizeof text), 5u);
    }
    EXPECT_THROW(caller.Receive(text, sizeof text), SocketException);
  }
  EXPECT_NE(acceptor->GetHandle(), -1);
  acceptor->Close();
  EXPECT_EQ(acceptor->GetHandle(), -1);
  EXPECT_FALSE(acceptor->HandleEvent());
  EXPECT_FALSE(acceptor->GetLocalAddress().IsValid());
  WSACleanup();
}

}  // namespace
}  // namespace kestrun
