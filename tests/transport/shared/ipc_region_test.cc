#include "transport/shared/ipc_region.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ipc_ends.h"
#include "runtime/files/mapped_file.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::IpcEnds;
using test::kLongMs;

// The header of a ring as a hostile peer would write it, in a region that it shares with a live end.
class HostileRegion {
 public:
  explicit HostileRegion(const std::string& name)
      : file_(name, 0, false), view_(file_.CreateView(0, MappedFile::kWholeSize, true)) {}
  ~HostileRegion() { view_.Reset(); }
  void Poke(u32 offset, u32 value) { std::memcpy(static_cast<u8*>(view_->GetData()) + offset, &value, sizeof value); }

 private:
  MappedFile file_;
  rc_ptr<MappedFile::ViewImpl> view_;
};

// A client can leave any word in the header of the listening region; the next one must not find it there.
TEST(IpcRegion, ListenerRepairsTheHeadersOfItsRegion) {
  IpcEnds ends;
  ends.Listen();
  for (const u32 ring : {0u, 0x10000u}) {
    for (const u32 field : {0u, 4u, 8u}) {
      HostileRegion(ends.name).Poke(ring + field, 0xFFFFFFFF);
      ends.listener->GetWaitHandle();
      auto accepted = ends.Accept();
      IpcSocket client;
      EXPECT_TRUE(client.Connect(ends.name, kLongMs)) << ring + field;
      if (client.GetState() != IpcSocket::State::kConnected) ends.listener->Close();
      EXPECT_TRUE(accepted.get());
    }
  }
}

TEST(IpcRegion, ConnectorRefusesARegionOfAnotherShape) {
  for (const u32 ring : {0u, 0x10000u}) {
    for (const u32 capacity : {0u, 65519u, 65521u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
      IpcEnds ends;
      ends.Listen();
      HostileRegion(ends.name).Poke(ring, capacity);
      IpcSocket client;
      EXPECT_FALSE(client.Connect(ends.name, 100));
    }
  }
  const std::string name = test::UniqueName();
  MappedFile tooSmall(name, 0x10000, true);
  IpcSocket client;
  EXPECT_FALSE(client.Connect(name, 100));
}

}  // namespace
}  // namespace kestrun
