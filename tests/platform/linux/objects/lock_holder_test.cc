// A process that is stopped while it holds a lock of the object table: the others fail after a limit, with a line that
// names it, and work again once it has gone.
#include "platform/linux/objects/lock_holder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include <memory>
#include <thread>

#include "../../scoped_handle.h"
#include "folder_fixture.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/objects/object_sweep.h"
#include "platform/linux/objects/process_slots.h"
#include "platform/linux/objects/robust_mutex.h"
#include "platform/win32.h"
#include "support/child.h"
#include "table_fixture.h"

namespace kestrun::test {
namespace {

constexpr const char* kName = "behind a lock";

// Words: which lock. Says that it holds it, and does nothing more until it is told.
KESTRUN_CHILD(KeepsATableLock) {
  const platform::FileDescriptor file = platform::OpenObjectFile(platform::TableFileName(), O_CREAT);
  void* const memory = mmap(nullptr, sizeof(platform::ObjectLayout), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  auto& layout = *static_cast<platform::ObjectLayout*>(memory);
  std::unique_ptr<platform::TableGate> gate;
  std::unique_ptr<platform::RobustLock> lock;
  if (words[0] == "gate") gate = std::make_unique<platform::TableGate>(file.get(), 0);
  if (words[0] == "bucket") {
    const unsigned bucket = platform::BucketOf(std::string("l-") + kName);
    lock = std::make_unique<platform::RobustLock>(layout.buckets[bucket].mutex, 0);
  }
  if (words[0] == "growth") lock = std::make_unique<platform::RobustLock>(layout.growth, 0);
  Say((gate && *gate) || (lock && *lock) ? "held" : "not held");
  AwaitLine();
  return 0;
}

// Makes the object and says with which error, once for each line. Words: whether it enters the table before.
KESTRUN_CHILD(MakesTheObject) {
  ScopedHandle bystander;
  if (words[0] == "inside") bystander = CreateEventA(nullptr, FALSE, FALSE, "something else");
  Say("there");
  for (std::string line = AwaitLine(); !line.empty(); line = AwaitLine()) {
    const ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, kName);
    Say(std::to_string(GetLastError()));
  }
  return 0;
}

class StoppedHolder : public ObjectFolderTest, public testing::WithParamInterface<const char*> {};

TEST_P(StoppedHolder, IsNamedAndTheOthersGoOn) {
  const std::string lock = GetParam();
  // The gate is met on the way into the table, the other locks inside.
  Child other = Child::Self("MakesTheObject", {lock == "gate" ? "outside" : "inside"}, InFolder());
  ASSERT_EQ(other.ReadLine(), "there");
  Child holder = Child::Self("KeepsATableLock", {lock}, InFolder());
  ASSERT_EQ(holder.ReadLine(), "held");
  kill(static_cast<pid_t>(holder.Pid()), SIGSTOP);
  for (int i = 0; i < 2; ++i) {
    other.Tell("make it");
    EXPECT_EQ(other.ReadLine(), std::to_string(ERROR_TIMEOUT));
  }
  holder.Kill();
  holder.Wait();
  other.Tell("make it");
  EXPECT_EQ(other.ReadLine(), std::to_string(ERROR_SUCCESS));
  other.CloseInput();
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(other.Errors(), "KESTRUN: error: cannot use the folder " + Objects() + " for named objects: process " +
                                std::to_string(holder.Pid()) +
                                " (platform_tests, which is stopped) keeps its object table locked; let it go on, or "
                                "end it\n");
}

INSTANTIATE_TEST_SUITE_P(ObjectTable, StoppedHolder, testing::Values("gate", "bucket", "growth"));

// What a killed process left behind such a lock is reclaimed later.
using SweepBesideAHolder = ObjectTableTest;

TEST_F(SweepBesideAHolder, KeepsTheMarksOfTheDeadUntilItCanHaveTheLock) {
  const unsigned dead = (processes_.own() + 1) % platform::kMaxProcesses;
  const unsigned theirs = Make("theirs");
  slots_[theirs].held.Add(dead);
  layout_.hasMarks[dead].store(1);
  {
    const platform::RobustLock lock(layout_.buckets[0].mutex, 0);
    std::thread([this] { EXPECT_EQ(platform::SweepTable(layout_, processes_, slots_), 0); }).join();
  }
  EXPECT_EQ(layout_.hasMarks[dead].load(), 1);
  EXPECT_TRUE(slots_[theirs].held.Has(dead));
  EXPECT_EQ(platform::SweepTable(layout_, processes_, slots_), 2);
}

}  // namespace
}  // namespace kestrun::test
