#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>

#include "../scoped_handle.h"
#include "platform/linux/handle_table.h"
#include "platform/linux/object_folder.h"
#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

namespace fs = std::filesystem;

HANDLE MakeRegion(const char* name) {
  return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name);
}

// Tries to create regions, each of which has a file, and tells the error.
KESTRUN_CHILD(CreatesInFolder) {
  ScopedHandle first = MakeRegion("first");
  ScopedHandle second = MakeRegion("second");
  Say(std::to_string(GetLastError()));
  AwaitLine();
  return first ? 0 : 1;
}

class ObjectFolder : public testing::Test {
 protected:
  std::string Objects() const { return folder_.File("objects"); }

  ChildOptions InFolder() const {
    ChildOptions options;
    options.environment["KESTRUN_OBJECT_DIR"] = Objects();
    return options;
  }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Objects())) {
      const std::string name = entry.path().filename();
      if (name.starts_with(".data-")) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void LeaveStaleObjects() {
    Child holder = Child::Self("CreatesInFolder", {}, InFolder());
    ASSERT_EQ(holder.ReadLine(), "0");
    holder.Kill();
    holder.Wait();
    ASSERT_EQ(Files().size(), 2u);
  }

  TempFolder folder_;
};

TEST_F(ObjectFolder, IsMadeForItsUserAloneAndEmptyAfterwards) {
  Child child = Child::Self("CreatesInFolder", {}, InFolder());
  EXPECT_EQ(child.ReadLine(), "0");
  struct stat status {};
  ASSERT_EQ(lstat(Objects().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_EQ(Files().size(), 2u);
  child.CloseInput();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(Files().empty());
}

TEST_F(ObjectFolder, OneThatOthersCouldReachIsRefusedWithOneLineThatTellsWhy) {
  const struct {
    const char* cause;
    std::function<void()> prepare;
  } cases[] = {
      {"its mode is not 0700", [&] { fs::create_directory(Objects()), chmod(Objects().c_str(), 0750); }},
      {"it is a symbolic link", [&] { fs::create_directory_symlink(folder_.Path(), Objects()); }},
      {"it is not a directory", [&] { folder_.Write("objects", ""); }},
  };
  for (const auto& one : cases) {
    one.prepare();
    Child child = Child::Self("CreatesInFolder", {}, InFolder());
    EXPECT_EQ(child.ReadLine(), std::to_string(ERROR_ACCESS_DENIED)) << one.cause;
    child.CloseInput();
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Errors(),
              "KESTRUN: error: cannot use the folder " + Objects() + " for named objects: " + one.cause + "\n");
    fs::remove_all(Objects());
  }
}

TEST_F(ObjectFolder, AStaleObjectIsNeverTakenUpAgain) {
  LeaveStaleObjects();
  Child next = Child::Self("CreatesInFolder", {}, InFolder());
  EXPECT_EQ(next.ReadLine(), std::to_string(ERROR_SUCCESS)) << "the dead object came back";
  EXPECT_EQ(Files().size(), 2u) << "nobody else lives here, so that nothing of the dead should be left";
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

TEST_F(ObjectFolder, IsSweptWhenNobodyHasDoneSoForAMinute) {
  Child bystander = Child::Self("LivesInFolder", {}, InFolder());
  ASSERT_EQ(bystander.ReadLine(), "ready");
  LeaveStaleObjects();
  const std::string stamp = Objects() + "/.sweep";
  ASSERT_TRUE(fs::exists(stamp));
  const auto useOnce = [&] { EXPECT_EQ(Child::Self("UsesFolder", {}, InFolder()).Wait(), 0); };
  useOnce();
  EXPECT_EQ(Files().size(), 2u) << "swept although somebody just had";
  fs::last_write_time(stamp, fs::file_time_type::clock::now() - std::chrono::seconds(90));
  useOnce();
  EXPECT_TRUE(Files().empty());
}

TEST_F(ObjectFolder, ASweepLeavesWhatIsInUse) {
  Child holder = Child::Self("CreatesInFolder", {}, InFolder());
  ASSERT_EQ(holder.ReadLine(), "0");
  fs::last_write_time(Objects() + "/.sweep", fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_EQ(Child::Self("UsesFolder", {}, InFolder()).Wait(), 0);
  EXPECT_EQ(Files().size(), 2u);
}

// Makes an object, has its folder taken away, and goes on.
KESTRUN_CHILD(LosesFolder) {
  ScopedHandle before = CreateEventA(nullptr, FALSE, TRUE, "before");
  Say("ready");
  AwaitLine();
  ScopedHandle after = CreateEventA(nullptr, FALSE, FALSE, "after");
  return after && WaitForSingleObject(before, 0) == WAIT_OBJECT_0 ? 0 : 1;
}

TEST_F(ObjectFolder, IsMadeAgainWhenItWasRemoved) {
  Child child = Child::Self("LosesFolder", {}, InFolder());
  ASSERT_EQ(child.ReadLine(), "ready");
  fs::remove_all(Objects());
  child.CloseInput();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(Files().empty());
}

TEST(ObjectNames, GlobalAndPlainAreTwoNameSpacesAndLocalIsPlain) {
  const std::string name = UniqueName();
  ScopedHandle plain = CreateEventA(nullptr, FALSE, FALSE, name.c_str());
  EXPECT_FALSE(OpenEventA(EVENT_ALL_ACCESS, FALSE, ("Global\\" + name).c_str()));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_TRUE(ScopedHandle(OpenEventA(EVENT_ALL_ACCESS, FALSE, ("Local\\" + name).c_str())));
}

TEST(ObjectNames, ImpossibleOnesAreRefused) {
  const struct {
    std::string name;
    DWORD error;
  } cases[] = {{"a\\b", ERROR_PATH_NOT_FOUND},
               {"Global\\", ERROR_INVALID_NAME},
               {std::string(261, 'x'), ERROR_FILENAME_EXCED_RANGE}};
  for (const auto& one : cases) {
    EXPECT_FALSE(CreateEventA(nullptr, FALSE, FALSE, one.name.c_str())) << one.name;
    EXPECT_EQ(GetLastError(), one.error) << one.name;
  }
}

TEST(Descriptors, AreAsManyAsTheSystemAllowsAndNoneIsInherited) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, UniqueName().c_str());
  rlimit now{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
  EXPECT_EQ(now.rlim_cur, now.rlim_max);
  EXPECT_LE(platform::OriginalDescriptorLimit().rlim_cur, now.rlim_max);
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const fs::path target = fs::read_symlink(entry.path(), error);
    if (error || target.string().find("kestrun") == std::string::npos) continue;
    const int fd = std::stoi(entry.path().filename());
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
  }
}

// Files may grow to 64 KiB here, so that a region of 128 KiB is one for which there is no room. The first object has
// brought in what all of them need.
KESTRUN_CHILD(HasNoRoom) {
  ScopedHandle event = CreateEventA(nullptr, FALSE, FALSE, "event");
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{65536, 65536};
  setrlimit(RLIMIT_FSIZE, &limit);
  for (const char* name : {words[0].c_str(), static_cast<const char*>(nullptr)}) {
    if (CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 0x20000, name)) return 1;
    if (GetLastError() != ERROR_DISK_FULL) return 2;
  }
  ScopedHandle smaller = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, words[0].c_str());
  return smaller && GetLastError() == ERROR_SUCCESS ? 0 : 3;
}

TEST(Regions, OneWithoutRoomIsAnErrorAndLeavesNothing) {
  EXPECT_EQ(Child::Self("HasNoRoom", {UniqueName()}).Wait(), 0);
}

}  // namespace
}  // namespace kestrun::test
