// Two processes over the IPC transport, and what happens when one of them is killed.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "ipc_ends.h"
#include "platform/host.h"
#include "runtime/threads/sync.h"
#include "support/child.h"
#include "transport/shared/ipc_socket.h"
#include "transport/shared/ipc_stream_adapter.h"

namespace kestrun {
namespace {

using test::Child;
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
  const rc_ptr<IpcSocket> connection = listener->Accept();
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

}  // namespace
}  // namespace kestrun
