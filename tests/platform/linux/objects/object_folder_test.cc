#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "../../scoped_handle.h"
#include "folder_fixture.h"
#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

namespace fs = std::filesystem;

using ObjectFolder = ObjectFolderTest;

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
    std::string cause;
    std::function<void()> prepare;
  } cases[] = {
      {"its mode is not 0700: chmod 700 " + Objects(),
       [&] { fs::create_directory(Objects()), chmod(Objects().c_str(), 0750); }},
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

}  // namespace
}  // namespace kestrun::test
