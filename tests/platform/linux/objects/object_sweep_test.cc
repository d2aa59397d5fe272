#include "platform/linux/objects/object_sweep.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "../../scoped_handle.h"
#include "folder_fixture.h"
#include "platform/win32.h"
#include "support/child.h"
#include "table_fixture.h"

namespace kestrun::test {
namespace {

namespace fs = std::filesystem;

class ObjectSweep : public ObjectFolderTest {
 protected:
  void LeaveStaleObjects() {
    Child holder = Child::Self("CreatesInFolder", {}, InFolder());
    ASSERT_EQ(holder.ReadLine(), "0");
    holder.Kill();
    holder.Wait();
    ASSERT_EQ(Files().size(), 2u);
  }
};

TEST_F(ObjectSweep, AStaleObjectIsNeverOpenedAgain) {
  LeaveStaleObjects();
  Child next = Child::Self("CreatesInFolder", {}, InFolder());
  EXPECT_EQ(next.ReadLine(), std::to_string(ERROR_SUCCESS)) << "the stale object was opened";
  EXPECT_EQ(Files().size(), 2u) << "with no other process alive, nothing stale should be left";
}

// Enters the folder and stays.
KESTRUN_CHILD(LivesInFolder) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, "bystander");
  Say("ready");
  AwaitLine();
  return event ? 0 : 1;
}

KESTRUN_CHILD(UsesFolder) {
  return ScopedHandle(CreateEventA(nullptr, FALSE, FALSE, "other")) ? 0 : 1;
}

TEST_F(ObjectSweep, RunsOnceAMinute) {
  Child bystander = Child::Self("LivesInFolder", {}, InFolder());
  ASSERT_EQ(bystander.ReadLine(), "ready");
  LeaveStaleObjects();
  const std::string stamp = Objects() + "/.sweep";
  ASSERT_TRUE(fs::exists(stamp));
  const auto useOnce = [&] { EXPECT_EQ(Child::Self("UsesFolder", {}, InFolder()).Wait(), 0); };
  useOnce();
  EXPECT_EQ(Files().size(), 2u) << "swept a second time within a minute";
  fs::last_write_time(stamp, fs::file_time_type::clock::now() - std::chrono::seconds(90));
  useOnce();
  EXPECT_TRUE(Files().empty());
}

TEST_F(ObjectSweep, LeavesWhatIsInUse) {
  Child holder = Child::Self("CreatesInFolder", {}, InFolder());
  ASSERT_EQ(holder.ReadLine(), "0");
  fs::last_write_time(Objects() + "/.sweep", fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_EQ(Child::Self("UsesFolder", {}, InFolder()).Wait(), 0);
  EXPECT_EQ(Files().size(), 2u);
}

class SweepTable : public ObjectTableTest {
 protected:
  // A process slot that is not locked.
  const unsigned dead_ = (processes_.own() + 1) % platform::kMaxProcesses;

  int Sweep() {
    layout_.hasMarks[dead_].store(1);
    return platform::SweepTable(layout_, processes_, slots_);
  }
};

TEST_F(SweepTable, ReclaimsWhatOnlyTheDeadHaveMarked) {
  const unsigned theirs = Make("theirs");
  slots_[theirs].held.Add(dead_);
  slots_[theirs].pinned.Add(dead_);
  const unsigned shared = Make("shared");
  for (const unsigned process : {dead_, processes_.own()}) slots_[shared].held.Add(process);
  const unsigned pinned = Make("pinned");
  slots_[pinned].held.Add(dead_);
  slots_[pinned].pinned.Add(processes_.own());
  EXPECT_EQ(Sweep(), 4);
  EXPECT_EQ(Phase(theirs), platform::SlotPhase::kFree);
  EXPECT_EQ(Phase(shared), platform::SlotPhase::kLive);
  EXPECT_EQ(Phase(pinned), platform::SlotPhase::kDead);
  EXPECT_FALSE(slots_[shared].held.Has(dead_));
  EXPECT_EQ(layout_.hasMarks[dead_].load(), 0);
}

TEST_F(SweepTable, FreesWhatADeadProcessHasClaimed) {
  // The last one was claimed by a process that died while it swept on its way into the table.
  const unsigned owners[] = {processes_.own(), dead_, platform::kMaxProcesses};
  const unsigned slots[] = {Claim(), Claim(), Claim()};
  for (int i = 0; i < 3; ++i) layout_.states[slots[i]].store(slots_.State(slots[i]).ClaimedBy(owners[i]).Word());
  EXPECT_EQ(Sweep(), 3);
  EXPECT_EQ(Phase(slots[0]), platform::SlotPhase::kClaimed);
  EXPECT_EQ(Phase(slots[1]), platform::SlotPhase::kFree);
  EXPECT_EQ(Phase(slots[2]), platform::SlotPhase::kFree);
}

}  // namespace
}  // namespace kestrun::test
