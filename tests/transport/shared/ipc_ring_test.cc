#include "transport/shared/ipc_ring.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "support/names.h"

namespace kestrun {
namespace {

constexpr u32 kRegionSize = 0x10000;
constexpr u32 kCapacity = kRegionSize - IpcRing::kHeaderSize;
constexpr u32 kMost = kCapacity - 1;

// A ring between two ends of this process, with a guard of known bytes on both sides of its memory.
class IpcRingTest : public testing::Test {
 protected:
  static constexpr u32 kGuard = 4096;

  void SetUp() override { std::fill(memory_.begin(), memory_.end(), u8{0xA5}); }
  void TearDown() override {
    for (u32 i = 0; i < kGuard; ++i) {
      ASSERT_EQ(memory_[i], 0xA5);
      ASSERT_EQ(memory_[kGuard + kRegionSize + i], 0xA5);
    }
  }

  void* Base() { return memory_.data() + kGuard; }
  // A field of the header, by its offset, as a hostile peer would write it.
  void Poke(u32 offset, u32 value) { std::memcpy(memory_.data() + kGuard + offset, &value, sizeof value); }
  void MakeEnds() {
    std::memset(Base(), 0, kRegionSize);
    writer_ = std::make_unique<IpcRing>(Base(), kRegionSize, name_);
    reader_ = std::make_unique<IpcRing>(Base(), name_);
  }
  // Bytes that tell their position.
  static std::string Pattern(u32 length, u32 start = 0) {
    std::string text(length, '\0');
    for (u32 i = 0; i < length; ++i) text[i] = static_cast<char>((start + i) * 31 >> 3);
    return text;
  }
  u32 Write(const std::string& text, u32 timeoutMs = 0) {
    return writer_->Write(text.data(), static_cast<u32>(text.size()), timeoutMs);
  }
  std::string Read(u32 length, u32 timeoutMs = 0) {
    std::string text(length, '\0');
    text.resize(reader_->Read(text.data(), length, timeoutMs));
    return text;
  }

  const std::string name_ = test::UniqueName();
  std::vector<u8> memory_ = std::vector<u8>(kGuard + kRegionSize + kGuard);
  std::unique_ptr<IpcRing> writer_;
  std::unique_ptr<IpcRing> reader_;
};

TEST_F(IpcRingTest, HoldsOneByteLessThanItsCapacity) {
  MakeEnds();
  EXPECT_EQ(Write(Pattern(kMost + 1)), kMost);
  EXPECT_EQ(reader_->GetUsed(), kMost);
  EXPECT_EQ(Write("x"), 0u);
  EXPECT_EQ(Read(kRegionSize), Pattern(kMost));
}

TEST_F(IpcRingTest, BlockThatWrapsComesInOneRead) {
  MakeEnds();
  ASSERT_EQ(Write(Pattern(kMost - 100)), kMost - 100);
  ASSERT_EQ(Read(kMost - 200).size(), kMost - 200);
  ASSERT_EQ(Write(Pattern(5000, kMost - 100)), 5000u);
  EXPECT_EQ(Read(10000), Pattern(5100, kMost - 200));
}

TEST_F(IpcRingTest, WaitsForBytesAndForRoom) {
  MakeEnds();
  auto late = std::async(std::launch::async, [&] { return Read(10, 60000); });
  EXPECT_EQ(Write("hello"), 5u);
  EXPECT_EQ(late.get(), "hello");
  auto blocked = std::async(std::launch::async, [&] { return Write(Pattern(kMost + 1000), 60000); });
  std::string all;
  while (all.size() < kMost + 1000) all += Read(4096, 60000);
  EXPECT_EQ(blocked.get(), kMost + 1000);
  EXPECT_EQ(all, Pattern(kMost + 1000));
}

TEST_F(IpcRingTest, DetachmentEndsOneReadThatFindsNothing) {
  MakeEnds();
  ASSERT_EQ(Write("rest"), 4u);
  EXPECT_EQ(reader_->GetAttachCount(), 2u);
  writer_->Detach();
  EXPECT_EQ(reader_->GetAttachCount(), 1u);
  EXPECT_EQ(reader_->GetAttachTotal(), 2u);
  EXPECT_EQ(writer_->Write("x", 1, 0), 0u);
  EXPECT_EQ(Read(10, 60000), "rest");

  IpcRing again(Base(), name_);
  again.Detach();
  EXPECT_EQ(Read(10, 60000), "");
  auto late = std::async(std::launch::async, [&] { return Read(10, 60000); });
  IpcRing third(Base(), name_);
  EXPECT_EQ(third.Write("now", 3, 0), 3u);
  EXPECT_EQ(late.get(), "now");
}

TEST_F(IpcRingTest, InterruptEndsAWait) {
  MakeEnds();
  auto blocked = std::async(std::launch::async, [&] { return Read(10, kNoLimit); });
  reader_->Interrupt();
  EXPECT_EQ(blocked.get(), "");
}

TEST_F(IpcRingTest, DiscardEmptiesIt) {
  MakeEnds();
  Write("left by a peer that died");
  EXPECT_EQ(reader_->Discard(), 24u);
  EXPECT_EQ(reader_->GetUsed(), 0u);
  EXPECT_EQ(Write("new"), 3u);
  EXPECT_EQ(Read(10), "new");
}

// The guards around the ring's memory, and the address sanitizer, tell of any access that follows a bad index.
TEST_F(IpcRingTest, IndicesOutsideTheDataMakeItCorrupt) {
  for (const u32 offset : {4u, 8u}) {
    for (const u32 value : {kCapacity, kCapacity + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
      MakeEnds();
      Write("abc");
      Poke(offset, value);
      EXPECT_EQ(Read(100), "");
      EXPECT_EQ(Write(Pattern(100)), 0u);
      EXPECT_EQ(reader_->GetUsed(), 0u);
      EXPECT_TRUE(reader_->IsCorrupt() && writer_->IsCorrupt());
    }
  }
}

TEST_F(IpcRingTest, CapacityIsReadOnceOnly) {
  MakeEnds();
  Poke(0, 0xFFFFFFFF);
  ASSERT_EQ(Write(Pattern(kMost)), kMost);
  EXPECT_EQ(Read(kRegionSize), Pattern(kMost));
  EXPECT_EQ(reader_->GetRegionSize(), kRegionSize);
}

}  // namespace
}  // namespace kestrun
