#include "transport/shared/ipc_socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "ipc_ends.h"
#include "platform/host.h"
#include "runtime/base/handle.h"
#include "runtime/files/mapped_file.h"
#include "transport/shared/ipc_stream_adapter.h"

namespace kestrun {
namespace {

using test::IpcEnds;
using test::kLongMs;
using test::ReadText;
using test::WriteText;

std::string Pattern(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7 >> 2);
  return text;
}

bool IsReady(IpcSocket& socket, u32 timeoutMs) {
  return WaitForHandle(platform::IntToHandle(socket.GetWaitHandle()), timeoutMs);
}

bool Exists(const std::string& region) {
  return static_cast<bool>(UniqueHandle(OpenFileMappingA(FILE_MAP_READ, FALSE, region.c_str())));
}

TEST(IpcSocket, ListenerGivesThePreparedConnectionAndLeavesNoneBehind) {
  IpcEnds ends;
  ends.Meet();
  const std::string first = ends.server->GetName();
  const auto number = std::stoul(first.substr(ends.name.size() + 1));
  const auto connection = [&](u32 after) { return ends.name + "." + std::to_string(number + after); };
  EXPECT_FALSE(Exists(connection(1)));
  ends.listener->PrepareNext();
  ends.listener->PrepareNext();
  EXPECT_TRUE(Exists(connection(1)));
  EXPECT_FALSE(Exists(connection(2)));
  ends.Connect();
  EXPECT_EQ(ends.server->GetName(), connection(1));
  WriteText(*ends.client, "to the second");
  EXPECT_EQ(ReadText(*ends.server, 100), "to the second");
  ends.listener->PrepareNext();
  EXPECT_TRUE(Exists(connection(2)));
  ends.listener->Close();
  EXPECT_FALSE(Exists(connection(2)));
  ends.listener->PrepareNext();
  EXPECT_FALSE(Exists(connection(3)));
}

TEST(IpcSocket, NameInUseOrUnknownIsRefused) {
  IpcEnds ends;
  ends.Listen();
  IpcSocket second;
  EXPECT_FALSE(second.Listen(ends.name));
  IpcSocket client;
  EXPECT_FALSE(client.Connect(test::UniqueName(), 100));
  EXPECT_EQ(client.GetState(), IpcSocket::State::kClosed);
  ends.listener->Close();
  EXPECT_TRUE(second.Listen(ends.name));
  EXPECT_FALSE(second.Connect(ends.name, 100));
}

TEST(IpcSocket, CloseIsSeenAfterTheLastByte) {
  IpcEnds ends;
  ends.Meet();
  const std::string text = Pattern(20000);
  ASSERT_EQ(WriteText(*ends.client, text).count, text.size());
  ends.client->Close();
  std::string all;
  IpcSocket::Result result;
  do {
    char block[8192];
    result = ends.server->Read(block, sizeof block, kNoLimit);
    all.append(block, result.count);
  } while (result.count > 0);
  EXPECT_EQ(all, text);
  EXPECT_FALSE(result.isConnected);
  EXPECT_FALSE(WriteText(*ends.server, "x").isConnected);
}

TEST(IpcSocket, BytesOfAPeerThatHasGoneOutliveTheCheckOfItsHandles) {
  IpcEnds ends;
  ends.Meet();
  WriteText(*ends.client, "last words");
  ends.client.Reset();
  EXPECT_TRUE(IsReady(*ends.server, 0));
  EXPECT_FALSE(ends.server->IsConnected());
  EXPECT_EQ(ReadText(*ends.server, 100), "last words");
}

TEST(IpcSocket, OwnCloseEndsWhatIsBlocked) {
  IpcEnds ends;
  ends.Meet();
  auto reading = std::async(std::launch::async, [&] { return ReadText(*ends.client, 1, kNoLimit); });
  auto writing = std::async(std::launch::async, [&] {
    IpcSocket::StreamAdapter stream(ends.client);
    const std::string text(200000, 'x');
    EXPECT_THROW(stream.Write(text.data(), static_cast<u32>(text.size())), StreamException);
  });
  auto accepting = ends.Accept();
  while (ends.server->GetAvailable() < 65519) SwitchToThread();
  ends.client->Close();
  EXPECT_EQ(reading.get(), "");
  writing.get();
  ends.listener->Close();
  EXPECT_FALSE(accepting.get());
}

// A client whose request does not fit into the ring, and that waits for room without limit.
class BlockedWriter : public testing::Test {
 protected:
  static constexpr auto kLimit = std::chrono::milliseconds(kLongMs);

  void SetUp() override {
    ends_.Meet();
    writing_ = std::async(std::launch::async, [&] { return WriteText(*ends_.client, Pattern(100000), kNoLimit); });
    while (ends_.server->GetAvailable() < 65519) SwitchToThread();
  }
  void TearDown() override { ends_.client->Close(); }

  IpcEnds ends_;
  std::future<IpcSocket::Result> writing_;
};

TEST_F(BlockedWriter, NoticesTheCloseOfThePeerAtOnce) {
  ends_.server->Close();
  EXPECT_EQ(writing_.wait_for(kLimit), std::future_status::ready);
  ends_.client->Close();
  EXPECT_FALSE(writing_.get().isConnected);
}

TEST_F(BlockedWriter, NoticesItsOwnCloseAtOnce) {
  ends_.client->Close();
  EXPECT_EQ(writing_.wait_for(kLimit), std::future_status::ready);
}

TEST_F(BlockedWriter, DoesNotHoldUpTheReaderOfItsOwnEnd) {
  WriteText(*ends_.server, "answer");
  auto reading = std::async(std::launch::async, [&] { return ReadText(*ends_.client, 100); });
  EXPECT_EQ(reading.wait_for(kLimit), std::future_status::ready);
  ends_.client->Close();
  EXPECT_EQ(reading.get(), "answer");
}

TEST(IpcSocket, ReadDoesNotWaitWithoutALimitOfTime) {
  IpcEnds ends;
  ends.Meet();
  char byte;
  IpcSocket::Result result = ends.server->Read(&byte, 1, 0);
  EXPECT_EQ(result.count, 0u);
  EXPECT_TRUE(result.isConnected);
  result = ends.server->Read(&byte, 1, 50);
  EXPECT_EQ(result.count, 0u);
  EXPECT_TRUE(result.isConnected);
}

TEST(IpcSocket, WriterThatLosesItsPeerWakesTheWaiter) {
  IpcEnds ends;
  ends.Meet();
  EXPECT_FALSE(IsReady(*ends.server, 0));
  ends.client->Close();
  IsReady(*ends.server, 0);
  EXPECT_FALSE(WriteText(*ends.server, "x").isConnected);
  EXPECT_TRUE(IsReady(*ends.server, 0));
}

TEST(IpcSocket, BytesBehindALockThatWasKeptForAWhileAreAnnouncedAgain) {
  IpcEnds ends;
  ends.Meet();
  WriteText(*ends.client, "late");
  auto keep = std::make_unique<NamedMutexLock>(ends.server->GetName() + ".c2s.lk");
  std::async(std::launch::async, [&] {
    EXPECT_TRUE(IsReady(*ends.server, 0));
    char block[100];
    const auto result = ends.server->Read(block, sizeof block, 0);
    EXPECT_EQ(result.count, 0u);
    EXPECT_TRUE(result.isConnected);
    EXPECT_FALSE(IsReady(*ends.server, 0));
  }).get();
  keep.reset();
  EXPECT_TRUE(IsReady(*ends.server, 0));
  EXPECT_EQ(ReadText(*ends.server, 100), "late");
}

}  // namespace
}  // namespace kestrun
