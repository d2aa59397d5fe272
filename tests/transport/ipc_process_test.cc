// Two processes over the IPC transport, and what happens when one of them is killed.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "connector.h"
#include "ipc_ends.h"
#include "platform/host.h"
#include "runtime/mapped_file.h"
#include "runtime/sync.h"
#include "support/child.h"
#include "transport/ipc_ring.h"
#include "transport/ipc_socket.h"
#include "transport/ipc_stream_adapter.h"

namespace kestrun {
namespace {

using test::Child;
using test::Connector;
using test::IpcEnds;
using test::kLongMs;
using test::ReadText;
using test::WriteText;

// Connects, tells so, and stays until it is killed or told to go.
KESTRUN_CHILD(IpcClient) {
  IpcSocket socket;
  if (!socket.Connect(words[0], kLongMs)) return 1;
  WriteText(socket, words[1]);
  test::Say("connected");
  test::AwaitLine();
  return 0;
}

KESTRUN_CHILD(IpcServer) {
  rc_ptr<IpcSocket> listener(new IpcSocket());
  if (!listener->Listen(words[0])) return 1;
  test::Say("listening");
  const rc_ptr<IpcSocket> connection(listener->Accept());
  test::Say(connection ? "accepted" : "failed");
  test::AwaitLine();
  return 0;
}

class IpcProcesses : public testing::Test {
 protected:
  // A client in another process that has connected and sent `text`.
  Child StartClient(const std::string& text) {
    auto accepted = ends_.Accept();
    Child child = Child::Self("IpcClient", {ends_.name, text});
    EXPECT_EQ(child.ReadLine(), "connected");
    ends_.server = accepted.get();
    EXPECT_TRUE(ends_.server);
    return child;
  }

  IpcEnds ends_;
};

TEST_F(IpcProcesses, BytesOfAClientThatEndedAreRead) {
  ends_.Listen();
  Child child = StartClient("what it sent");
  child.Tell("go");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ReadText(*ends_.server, 100), "what it sent");
  EXPECT_FALSE(ends_.server->IsConnected());
}

TEST_F(IpcProcesses, KilledClientShowsInTheWaitHandle) {
  ends_.Listen();
  Child child = StartClient("x");
  ASSERT_EQ(ReadText(*ends_.server, 10), "x");
  const HANDLE handle = platform::IntToHandle(ends_.server->GetWaitHandle());
  WaitForHandle(handle, 0);  // the bytes that have been read
  ASSERT_FALSE(WaitForHandle(handle, 0));
  child.Kill();
  child.Wait();
  EXPECT_TRUE(WaitForHandle(platform::IntToHandle(ends_.server->GetWaitHandle()), kLongMs));
  EXPECT_FALSE(ends_.server->Read(nullptr, 0, 0).isConnected);
}

TEST_F(IpcProcesses, KilledClientEndsAWriterIntoAFullRing) {
  ends_.Listen();
  Child child = StartClient("x");
  auto writing = std::async(std::launch::async, [&] {
    IpcSocket::StreamAdapter stream(ends_.server);
    const std::string text(100000, 'x');
    EXPECT_THROW(stream.Write(text.data(), static_cast<u32>(text.size())), StreamException);
  });
  child.Kill();
  writing.get();
}

TEST_F(IpcProcesses, KilledServerEndsABlockedReader) {
  Child child = Child::Self("IpcServer", {ends_.name});
  ASSERT_EQ(child.ReadLine(), "listening");
  IpcSocket client;
  ASSERT_TRUE(client.Connect(ends_.name, kLongMs));
  ASSERT_EQ(child.ReadLine(), "accepted");
  auto reading = std::async(std::launch::async, [&] { return ReadText(client, 10, kNoLimit); });
  child.Kill();
  EXPECT_EQ(reading.get(), "");
  EXPECT_FALSE(client.IsConnected());
  IpcSocket next;
  EXPECT_FALSE(next.Connect(ends_.name, kLongMs));
}

// Connectors that die in their introduction ---------------------------------------------------------------------------

// Does as many steps as it is told, says so and waits for its death.
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

class DyingConnectors : public IpcProcesses, public testing::WithParamInterface<int> {
 protected:
  void RunAndKill() {
    Child child = Child::Self("DyingConnector", {ends_.name, std::to_string(GetParam())});
    ASSERT_EQ(child.ReadLine(), "done");
    child.Kill();
    child.Wait();
  }
  // As a reactor would: as often as it takes until a connection that talks is there.
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
  // And at once: the listener does not wait out its limit of 5 s for the dead one.
  void ExpectThatTheNextIsServed(std::future<std::string>& text) {
    IpcSocket client;
    const u32 start = GetTickCount();
    ASSERT_TRUE(client.Connect(ends_.name, kLongMs));
    EXPECT_LT(GetTickCount() - start, 5000u);
    WriteText(client, client.GetName());
    EXPECT_EQ(text.get(), client.GetName());
  }
};

TEST_P(DyingConnectors, NextOneIsServed) {
  ends_.Listen();
  auto text = AcceptAndRead();
  RunAndKill();
  ExpectThatTheNextIsServed(text);
  EXPECT_EQ(ends_.listener->GetAvailable(), 0u);
}

INSTANTIATE_TEST_SUITE_P(EachStep, DyingConnectors, testing::Values(1, 2, 3, 4, 5));

// The listener comes to it only after the connector has died: the request of a dead one stands in the ring.
class DeadConnectors : public DyingConnectors {};

TEST_P(DeadConnectors, LeaveNothingToTheNextOne) {
  ends_.Listen();
  RunAndKill();
  auto text = AcceptAndRead();
  ExpectThatTheNextIsServed(text);
}

INSTANTIATE_TEST_SUITE_P(EachStep, DeadConnectors, testing::Values(1, 2, 3));

class ConnectorThatHasAsked : public DyingConnectors {};

TEST_P(ConnectorThatHasAsked, IsNotWaitedForOnceItIsDead) {
  ends_.Listen();
  RunAndKill();
  const u32 start = GetTickCount();
  EXPECT_EQ(ends_.listener->Accept(), nullptr);
  EXPECT_LT(GetTickCount() - start, 5000u);
}

INSTANTIATE_TEST_SUITE_P(Dead, ConnectorThatHasAsked, testing::Values(3));

KESTRUN_CHILD(RestlessConnector) {
  for (;;) {
    IpcSocket socket;
    if (!socket.Connect(words[0], kLongMs)) return 1;
    test::Say("connected");
  }
}

// Whoever connects beside connectors that are killed at any moment gets through, to a connection of its own.
TEST_F(IpcProcesses, ConnectorsThatAreKilledAtRandomDisturbNobody) {
  ends_.Listen();
  auto serving = std::async(std::launch::async, [&] {
    while (ends_.listener->GetState() == IpcSocket::State::kListening) {
      const rc_ptr<IpcSocket> server(ends_.listener->Accept());
      if (server) WriteText(*server, server->GetName());
    }
  });
  std::atomic<bool> isOver{false};
  auto connecting = std::async(std::launch::async, [&] {
    u32 count = 0;
    for (; !isOver; ++count) {
      IpcSocket client;
      EXPECT_TRUE(client.Connect(ends_.name, kLongMs));
      EXPECT_EQ(ReadText(client, 200), client.GetName());
    }
    return count;
  });
  u32 refused = 0;
  for (u32 round = 0; round < 12; ++round) {
    try {
      Child child = Child::Self("RestlessConnector", {ends_.name});
      for (u32 i = 0; i <= round * 7 % 12; ++i) EXPECT_EQ(child.ReadLine(), "connected");
      child.Kill();
      child.Wait();
    } catch (const std::runtime_error& e) {
      ++refused;
      std::cout << e.what() << std::endl;
      EXPECT_TRUE(test::RefusesProcesses()) << e.what();
    }
  }
  EXPECT_LE(refused, 1u);
  isOver = true;
  EXPECT_GT(connecting.get(), 0u);
  ends_.listener->Close();
  serving.get();
}

}  // namespace
}  // namespace kestrun
