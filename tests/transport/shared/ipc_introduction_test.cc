#include "transport/shared/ipc_introduction.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "connector.h"
#include "ipc_ends.h"
#include "support/child.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun {
namespace {

using test::Child;
using test::Connector;
using test::IpcEnds;
using test::kLongMs;
using test::ReadText;
using test::WriteText;

TEST(IpcIntroduction, TwoConnectorsAtOnceGetConnectionsOfTheirOwn) {
  IpcEnds ends;
  ends.Listen();
  auto accepted = std::async(std::launch::async, [&] {
    std::vector<rc_ptr<IpcSocket>> sockets;
    for (int i = 0; i < 4; ++i) sockets.emplace_back(ends.listener->Accept());
    return sockets;
  });
  std::vector<std::future<rc_ptr<IpcSocket>>> connectors;
  for (int i = 0; i < 4; ++i) {
    connectors.push_back(std::async(std::launch::async, [&] {
      rc_ptr<IpcSocket> socket(new IpcSocket());
      EXPECT_TRUE(socket->Connect(ends.name, kLongMs));
      WriteText(*socket, socket->GetName());
      return socket;
    }));
  }
  std::vector<rc_ptr<IpcSocket>> clients;
  for (auto& connector : connectors) clients.push_back(connector.get());
  for (const auto& server : accepted.get()) {
    ASSERT_TRUE(server);
    EXPECT_EQ(ReadText(*server, 200), server->GetName());
  }
}

TEST(IpcIntroduction, NameLeavesRoomForThoseOfConnections) {
  IpcEnds longest;
  std::string name = longest.name;
  name.resize(117, 'x');
  IpcSocket refused;
  EXPECT_FALSE(refused.Listen(name));
  EXPECT_FALSE(refused.Connect(name, 100));
  name.resize(116);
  ASSERT_TRUE(longest.listener->Listen(name));
  auto accepted = longest.Accept();
  IpcSocket client;
  EXPECT_TRUE(client.Connect(name, kLongMs));
  EXPECT_TRUE(accepted.get());
  EXPECT_LT(client.GetName().size(), 128u);
}

TEST(IpcIntroduction, ListenerThatDoesNotAnswerFailsTheConnector) {
  IpcEnds ends;
  ends.Listen();
  IpcSocket client;
  EXPECT_FALSE(client.Connect(ends.name, 50));
  EXPECT_EQ(client.GetState(), IpcSocket::State::kFailed);
}

TEST(IpcIntroduction, TryAcceptDoesNotWaitForARequest) {
  IpcEnds ends;
  ends.Listen();
  rc_ptr<IpcSocket> connection;
  EXPECT_FALSE(ends.listener->TryAccept(connection));
  EXPECT_FALSE(connection);
}

// Connectors that die -------------------------------------------------------------------------------------------------

// Takes as many steps of the introduction as it is told, says so and waits to be killed.
KESTRUN_CHILD(DyingConnector) {
  Connector connector(words[0]);
  const int steps = std::stoi(words[1]);
  if (steps > 0) connector.TakeTurn();
  if (steps > 1) connector.Attach();
  if (steps > 2) connector.Ask();
  if (steps > 3) connector.AwaitReply();
  if (steps > 4) connector.TakeReply();
  test::Say("done");
  test::AwaitLine();
  return 0;
}

class DyingConnectors : public testing::TestWithParam<int> {
 protected:
  void RunAndKill() {
    Child child = Child::Self("DyingConnector", {ends_.name, std::to_string(GetParam())});
    ASSERT_EQ(child.ReadLine(), "done");
    child.Kill();
    child.Wait();
  }
  // Accepts as a reactor would, again and again, until there is a connection that sends something.
  std::future<std::string> AcceptAndRead() {
    return std::async(std::launch::async, [this] {
      for (;;) {
        ends_.server = ends_.listener->Accept();
        if (!ends_.server) continue;
        const std::string text = ReadText(*ends_.server, 100, kNoLimit);
        if (!text.empty()) return text;
      }
    });
  }
  // Expects that the next connector is served without delay: the listener does not wait for the dead connector until
  // its limit of 5 s.
  void ExpectThatTheNextIsServed(std::future<std::string>& text) {
    IpcSocket client;
    const u32 start = GetTickCount();
    ASSERT_TRUE(client.Connect(ends_.name, kLongMs));
    EXPECT_LT(GetTickCount() - start, 5000u);
    WriteText(client, client.GetName());
    EXPECT_EQ(text.get(), client.GetName());
  }

  IpcEnds ends_;
};

TEST_P(DyingConnectors, NextOneIsServed) {
  ends_.Listen();
  auto text = AcceptAndRead();
  RunAndKill();
  ExpectThatTheNextIsServed(text);
  EXPECT_EQ(ends_.listener->GetAvailable(), 0u);
}

INSTANTIATE_TEST_SUITE_P(EachStep, DyingConnectors, testing::Values(1, 2, 3, 4, 5));

// The listener accepts only after the connector was killed, so that it finds the request of a dead connector in the
// ring.
class DeadConnectors : public DyingConnectors {};

TEST_P(DeadConnectors, LeaveNothingToTheNextOne) {
  ends_.Listen();
  RunAndKill();
  auto text = AcceptAndRead();
  ExpectThatTheNextIsServed(text);
}

INSTANTIATE_TEST_SUITE_P(EachStep, DeadConnectors, testing::Values(1, 2, 3));

}  // namespace
}  // namespace kestrun
