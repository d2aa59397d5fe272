#include "transport/sockets/address.h"

#include <gtest/gtest.h>

#include <string>

#include "support/expect_throw.h"
#include "transport/sockets/local_host.h"

namespace kestrun {
namespace {

class SocketsStarted : public testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(WSAStartup(0x0202, &data), 0);
  }
  void TearDown() override { WSACleanup(); }
};
[[maybe_unused]] const auto* const kSockets = testing::AddGlobalTestEnvironment(new SocketsStarted);

TEST(Address, FullFormIsReadAndWritten) {
  for (const char* form : {"ipc:zelvo_client_ipc_1234.1297000001", "tcp:127.0.0.1/5000", "udp:127.0.0.1/65535",
                           "int:any:thing", "ipc:", ""}) {
    EXPECT_EQ(Address(std::string(form)).ToString(), form);
  }
}

TEST(Address, RefusesWhatIsNoAddress) {
  for (const char* form : {"zelvo", "IPC:name", "tcp4:127.0.0.1/1", ":text", "tcp:127.0.0.1", "tcp:127.0.0.1/0",
                           "udp:127.0.0.1/65536", "tcp:127.0.0.1/-1", "tcp:no host of this name/80"}) {
    EXPECT_THROW(Address(std::string(form)), AddressException) << form;
  }
  test::ExpectThrow<AddressException>([] { Address(Address::kTcp, "127.0.0.1"); }, "Invalid Address: 127.0.0.1", -1,
                                      "AddressException");
  EXPECT_THROW(Address(Address::kNone, "text"), AddressException);
  EXPECT_THROW(Address(7, "text"), AddressException);
}

TEST(Address, OrdersByKindThenText) {
  const Address ipc(Address::kIpc, "b");
  const Address tcp(Address::kTcp, "127.0.0.1/5000");
  const Address udp(Address::kUdp, "127.0.0.1/5000");
  EXPECT_TRUE(Address() < ipc && ipc < tcp && tcp < udp);
  EXPECT_FALSE(tcp == udp);
  EXPECT_TRUE(Address(Address::kIpc, "A") < ipc);
  EXPECT_FALSE(Address(Address::kIpc, "B") == ipc);
  EXPECT_TRUE(Address(Address::kIpc, "b") == ipc);
}

TEST(Address, KnowsTheLocalMachine) {
  EXPECT_TRUE(Address(Address::kIpc, "x").IsLocal());
  EXPECT_TRUE(Address(Address::kTcp, "127.0.0.1/9").IsLocal());
  EXPECT_TRUE(Address(Address::kTcp, "localhost/9").IsLocal());
  EXPECT_FALSE(Address(Address::kTcp, "192.0.2.1/9").IsLocal());
  EXPECT_FALSE(Address().IsLocal());
  EXPECT_FALSE(SocketAddress("no host of this name", 80).IsValid());
  EXPECT_EQ(GetLocalHostName(), "127.0.0.1");
  SetLocalHostName("192.0.2.1");
  EXPECT_EQ(Address(Address::kInt, "x").GetHost(), "192.0.2.1");
  EXPECT_TRUE(Address(Address::kTcp, "192.0.2.1/9").IsLocal());
  SetLocalHostName("");
}

}  // namespace
}  // namespace kestrun
