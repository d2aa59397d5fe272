#include "platform/linux/objects/object_slots.h"

#include "table_fixture.h"

namespace kestrun::test {
namespace {

using platform::SlotPhase;
using ObjectSlots = ObjectTableTest;

TEST_F(ObjectSlots, AreFoundUntilTheyAreUnlinkedFromAnywhereInTheChain) {
  const unsigned slots[] = {Make("a"), Make("b"), Make("c")};
  platform::ObjectBucket& bucket = layout_.buckets[0];
  for (const int victim : {1, 2, 0}) {
    const std::string name(1, static_cast<char>('a' + victim));
    EXPECT_EQ(slots_.Find(bucket, name), slots[victim]);
    slots_.Unlink(bucket, slots[victim]);
    EXPECT_EQ(slots_.Find(bucket, name), platform::ObjectSlots::kNone);
    EXPECT_EQ(Phase(slots[victim]), SlotPhase::kDead);
    // As after a kill between the two steps.
    slots_.Unlink(bucket, slots[victim]);
  }
  EXPECT_EQ(bucket.first.load(), 0u);
}

TEST_F(ObjectSlots, AreReclaimedOnlyAsTheObjectThatWasMeant) {
  const unsigned slot = Make("a");
  const std::uint32_t first = slots_.State(slot).generation;
  slots_.Reclaim(slot, first);
  EXPECT_EQ(Phase(slot), SlotPhase::kLive);
  slots_.Unlink(layout_.buckets[0], slot);
  slots_.Reclaim(slot, first);
  EXPECT_EQ(Phase(slot), SlotPhase::kFree);
  EXPECT_EQ(Make("b"), slot) << "a free slot comes before one that was never used";
  slots_.Unlink(layout_.buckets[0], slot);
  slots_.Reclaim(slot, first);
  EXPECT_EQ(Phase(slot), SlotPhase::kDead);
}

TEST_F(ObjectSlots, RunOutWithAnErrorAndStartAnewEmpty) {
  for (unsigned i = 0; i < platform::kMaxObjects; ++i) ASSERT_EQ(Claim(), i);
  unsigned slot = 0;
  EXPECT_FALSE(slots_.Claim(&slot));
  slots_.Free(77);
  EXPECT_EQ(Claim(), 77u);
  slots_.StartAnew(sizeof layout_);
  EXPECT_EQ(Claim(), 0u);
}

}  // namespace
}  // namespace kestrun::test
