#include "platform/linux/objects/object_layout.h"

#include <gtest/gtest.h>

#include <iterator>
#include <vector>

namespace kestrun::platform {
namespace {

// Fails when the layout changes without its version: then bump kObjectLayoutVersion, and take over the new numbers.
TEST(ObjectLayout, IsThatOfItsVersion) {
  if (sizeof(pthread_mutex_t) != 40) GTEST_SKIP() << "the numbers are those of another C library";
  const std::size_t found[] = {kObjectLayoutVersion,
                               sizeof(ObjectLayout),
                               sizeof(ObjectSlot),
                               offsetof(ObjectHeader, name),
                               offsetof(ObjectHeader, state),
                               offsetof(ObjectHeader, mutex),
                               offsetof(ObjectHeader, abandoned),
                               offsetof(ObjectSlot, held),
                               offsetof(ObjectSlot, pinned),
                               offsetof(ObjectLayout, hubs),
                               offsetof(ObjectLayout, buckets),
                               offsetof(ObjectLayout, hasMarks),
                               offsetof(ObjectLayout, states),
                               BucketOf("g-kestrun"),
                               static_cast<std::size_t>(SlotState{3, 5, SlotPhase::kLive}.ClaimedBy(7).Word())};
  const std::size_t expected[] = {1,    12668928, 1536, 20,    320,   384, 424,        512,
                                  1024, 4096,     8192, 16384, 20480, 122, 12884903681};
  EXPECT_EQ(std::vector<std::size_t>(std::begin(found), std::end(found)),
            std::vector<std::size_t>(std::begin(expected), std::end(expected)));
}

}  // namespace
}  // namespace kestrun::platform
