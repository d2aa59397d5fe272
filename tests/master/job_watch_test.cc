#include "master/job_watch.h"

#include <gtest/gtest.h>

#include <atomic>

namespace kestrun {
namespace {

std::atomic<u64> usedTime{0};
std::atomic<u64> usedPerLook{0};

u64 TimeOf(u32) {
  return usedTime += usedPerLook;
}

u32 NoParent(u32) {
  return 0;
}

class JobWatchTest : public testing::Test {
 protected:
  JobWatchTest() {
    slots_.SetListener([this](JobSlots::Ticket) { granted_.Signal(); });
    slots_.Ask(1, 1);
    slots_.Ask(2, 2);
  }

  JobSlots slots_{1, NoParent};
  Condition granted_;
};

TEST_F(JobWatchTest, LetsAJobRunBesideIdleOnes) {
  usedPerLook = 0;
  JobWatch watch(slots_, TimeOf, 5);
  EXPECT_TRUE(granted_.Wait(20000));
}

TEST_F(JobWatchTest, LeavesTheLimitToJobsAtWork) {
  usedPerLook = 1;
  JobWatch watch(slots_, TimeOf, 5);
  EXPECT_FALSE(granted_.Wait(200));
  usedPerLook = 0;
  EXPECT_TRUE(granted_.Wait(20000));
}

}  // namespace
}  // namespace kestrun
