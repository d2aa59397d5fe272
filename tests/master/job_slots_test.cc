#include "master/job_slots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace kestrun {
namespace {

// Process n0 is the child of n: 1 -> 10 -> 100.
u32 ParentByTens(u32 processId) {
  return processId / 10;
}

class JobSlotsTest : public testing::Test {
 protected:
  explicit JobSlotsTest(u32 count = 1) : slots_(count, ParentByTens) {
    slots_.SetListener([this](JobSlots::Ticket ticket) { granted_.push_back(ticket); });
  }

  JobSlots slots_;
  std::vector<JobSlots::Ticket> granted_;
};

TEST_F(JobSlotsTest, GrantsStrangersOneAfterTheOther) {
  EXPECT_TRUE(slots_.Ask(1, 7));
  EXPECT_FALSE(slots_.Ask(2, 8));
  EXPECT_FALSE(slots_.Ask(3, 9));
  slots_.Leave(2);  // gave up
  EXPECT_TRUE(granted_.empty());
  slots_.Leave(1);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{3}));
  slots_.Leave(3);
  EXPECT_EQ(slots_.CountRunning(), 0u);
}

TEST_F(JobSlotsTest, FourLevelsRunInOneSlot) {
  EXPECT_TRUE(slots_.Ask(1, 1));
  EXPECT_TRUE(slots_.Ask(2, 1000));  // with processes that are no clients between them
  EXPECT_TRUE(slots_.Ask(3, 10000));
  EXPECT_TRUE(slots_.Ask(4, 100000));
  EXPECT_FALSE(slots_.Ask(5, 10001)) << "the slot is lent already";
  EXPECT_FALSE(slots_.Ask(6, 2)) << "a stranger";
  slots_.Leave(4);
  EXPECT_TRUE(granted_.empty()) << "5 is below 2, which lends to 3";
  slots_.Leave(3);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{5}));
  slots_.Leave(5);
  slots_.Leave(2);
  EXPECT_EQ(granted_.size(), 1u);
  slots_.Leave(1);
  EXPECT_EQ(granted_.back(), 6u);
}

TEST_F(JobSlotsTest, AProcessThatAsksAgainUsesItsOwnSlot) {
  EXPECT_TRUE(slots_.Ask(1, 5));
  EXPECT_TRUE(slots_.Ask(2, 5));
  EXPECT_TRUE(slots_.Ask(3, 50));
  EXPECT_FALSE(slots_.Ask(4, 6));
  slots_.Leave(1);  // the process has ended; its two jobs leave in any order
  slots_.Leave(2);
  slots_.Leave(3);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{4}));
}

TEST_F(JobSlotsTest, ABorrowerKeepsTheSlotOfALenderThatEnds) {
  EXPECT_TRUE(slots_.Ask(1, 1));
  EXPECT_TRUE(slots_.Ask(2, 10));
  EXPECT_TRUE(slots_.Ask(3, 100));
  EXPECT_FALSE(slots_.Ask(4, 2));
  slots_.Leave(2);  // 3 borrows from 1 now
  slots_.Leave(1);  // and owns the slot now
  EXPECT_TRUE(granted_.empty());
  slots_.Leave(3);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{4}));
}

TEST_F(JobSlotsTest, AJobMayAskBeforeItsAncestorsProcessIsKnown) {
  const JobSlots::Ticket thread = slots_.NewTicket();
  ASSERT_TRUE(slots_.AskAndWait(thread));
  EXPECT_FALSE(slots_.Ask(100, 52));
  slots_.SetProcess(thread, 5);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{100}));
}

TEST_F(JobSlotsTest, JobsThatAPipeJoinsRunTogether) {
  EXPECT_TRUE(slots_.Ask(1, 1, 0, 70));   // writes into pipe 70
  EXPECT_FALSE(slots_.Ask(2, 2, 0, 70));  // writes there as well: a log of the whole build
  EXPECT_FALSE(slots_.Ask(3, 3, 81, 82));
  EXPECT_TRUE(slots_.Ask(4, 4, 70, 80));  // reads pipe 70
  EXPECT_TRUE(slots_.Ask(5, 5, 80, 81));  // and the next in the pipeline, and so
  slots_.Leave(5);
  EXPECT_TRUE(granted_.empty()) << "those beside the limit leave no slot behind";
  slots_.Leave(4);
  slots_.Leave(1);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{2}));
}

TEST_F(JobSlotsTest, IdleJobsLetOneMoreRun) {
  EXPECT_TRUE(slots_.Ask(1, 1));
  EXPECT_FALSE(slots_.Ask(2, 2));
  u64 generation = 0;
  EXPECT_EQ(slots_.GetRunning(generation), (std::vector<u32>{1}));
  slots_.GrantBeyond(generation - 1);  // something has happened since
  EXPECT_TRUE(granted_.empty());
  slots_.GrantBeyond(generation);
  EXPECT_EQ(granted_, (std::vector<JobSlots::Ticket>{2}));
  EXPECT_FALSE(slots_.Ask(3, 3));
  slots_.Leave(2);
  EXPECT_EQ(granted_.size(), 1u);
  slots_.Leave(1);
  EXPECT_EQ(granted_.back(), 3u);
}

TEST_F(JobSlotsTest, AStopEndsTheWaitOfAThreadWithoutASlot) {
  EXPECT_TRUE(slots_.Ask(100, 1));
  std::thread waiting([this] { EXPECT_FALSE(slots_.AskAndWait(slots_.NewTicket())); });
  while (slots_.CountWaiting() == 0) std::this_thread::yield();
  slots_.Stop();
  waiting.join();
  EXPECT_EQ(slots_.CountWaiting(), 0u);
}

TEST(JobSlots, ATicketThatLeavesWhileItsAncestorsAreLookedForIsForgotten) {
  static JobSlots* slots = nullptr;
  JobSlots made(1, [](u32) {
    slots->Leave(2);
    return u32{0};
  });
  slots = &made;
  EXPECT_TRUE(made.Ask(1, 7));
  EXPECT_FALSE(made.Ask(2, 8));
  EXPECT_EQ(made.CountWaiting(), 0u);
}

class JobSlotsOfThree : public JobSlotsTest {
 protected:
  JobSlotsOfThree() : JobSlotsTest(3) {}
};

// Jobs come and leave in a random order: the number of jobs that own a slot never exceeds the slots, a job without
// waiting descendants of its own waits only while no slot is free, and in the end all slots are free.
TEST_F(JobSlotsOfThree, NoSlotIsLostOrMadeInARandomSequence) {
  std::mt19937 random(7);
  std::map<JobSlots::Ticket, u32> present;
  std::set<JobSlots::Ticket> running;
  for (int step = 0; step < 20000; ++step) {
    if (present.size() < 12 && random() % 2 == 0) {
      const JobSlots::Ticket ticket = slots_.NewTicket();
      // Either a child of a job that runs, or an unrelated process.
      u32 process = static_cast<u32>(1 + random() % 9);
      if (!running.empty() && random() % 2 == 0) {
        const auto parent = std::next(running.begin(), static_cast<int>(random() % running.size()));
        process = present[*parent] % 100000 * 10 + static_cast<u32>(random() % 10);
      }
      present[ticket] = process;
      if (slots_.Ask(ticket, process)) running.insert(ticket);
    } else if (!present.empty()) {
      const auto leaving = std::next(present.begin(), static_cast<int>(random() % present.size()));
      const JobSlots::Ticket ticket = leaving->first;
      running.erase(ticket);
      present.erase(leaving);
      slots_.Leave(ticket);
    }
    for (const auto ticket : granted_) running.insert(ticket);
    granted_.clear();
    ASSERT_EQ(slots_.CountRunning(), running.size());
    if (slots_.CountWaiting() > 0) {
      ASSERT_GE(running.size(), 3u);
    }
  }
  while (!present.empty()) {
    slots_.Leave(present.begin()->first);
    present.erase(present.begin());
  }
  granted_.clear();
  EXPECT_TRUE(slots_.Ask(1u << 30, 7001));
  EXPECT_TRUE(slots_.Ask(2u << 30, 8001));
  EXPECT_TRUE(slots_.Ask(3u << 30, 9001));
  EXPECT_FALSE(slots_.Ask(4ull << 30, 3));
}

}  // namespace
}  // namespace kestrun
