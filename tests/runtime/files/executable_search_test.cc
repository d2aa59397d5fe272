#include "runtime/files/executable_search.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/base/environment.h"
#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

// Searches with a PATH and a current directory of its own; both are put back.
class ExecutableSearch : public testing::Test {
 protected:
  ExecutableSearch() { GetEnvironmentValue("PATH", savedPath_); }
  ~ExecutableSearch() override {
    fs::current_path(savedDirectory_);
    SetEnvironmentVariableA("PATH", savedPath_.c_str());
  }

  static void SetSearchPath(const std::vector<std::string>& elements) {
    std::string text;
    for (const std::string& element : elements) text += element + platform::kPathListSeparator;
    text.pop_back();
    SetEnvironmentVariableA("PATH", text.c_str());
  }

  // Finds the name and says in which folder.
  fs::path FolderOf(const std::string& name) {
    std::string found;
    EXPECT_TRUE(FindExecutable(name, found)) << name;
    return fs::canonical(fs::path(found).parent_path());
  }

  const std::string name_ = test::UniqueName("tool") + ".exe";
  test::TempFolder first_;
  test::TempFolder second_;

 private:
  const fs::path savedDirectory_ = fs::current_path();
  std::string savedPath_;
};

TEST_F(ExecutableSearch, GoesThroughProgramFolderCurrentFolderAndPathInThisOrder) {
  test::TempFolder current;
  fs::current_path(current.Path());
  SetSearchPath({"\"" + first_.Path().string() + "\"", second_.Path().string()});
  std::string found;
  EXPECT_FALSE(FindExecutable(name_, found));
  EXPECT_EQ(found, "");

  const fs::path programFolder = fs::path(GetProgramPath().ToString()).parent_path();
  for (const fs::path& folder : {second_.Path(), first_.Path(), current.Path(), programFolder}) {
    std::ofstream(folder / name_).put('x');
    EXPECT_EQ(FolderOf(name_), fs::canonical(folder));
  }
  fs::remove(programFolder / name_);
}

TEST_F(ExecutableSearch, AddsTheEndingUnlessItIsThereInAnyCase) {
  SetSearchPath({first_.Path().string()});
  const std::string base = test::UniqueName("ending");
  first_.Write(base + ".exe", "");
  first_.Write(base + ".bat.exe", "");
  first_.Write(base + "2.EXE", "");
  const fs::path folder = fs::canonical(first_.Path());
  EXPECT_EQ(FolderOf(base), folder);
  EXPECT_EQ(FolderOf("\"" + base + ".bat\""), folder);
  EXPECT_EQ(FolderOf(base + "2.EXE"), folder);
  std::string found;
  EXPECT_FALSE(FindExecutable(base + ".bat.exe.exe", found));
}

TEST_F(ExecutableSearch, TakesAnAbsoluteNameAndARelativeOneWithAFolder) {
  fs::create_directory(first_.Path() / "sub");
  const std::string file = first_.Write("sub/" + name_, "");
  SetSearchPath({second_.Path().string(), first_.Path().string()});
  const fs::path folder = fs::canonical(first_.Path() / "sub");
  EXPECT_EQ(FolderOf(file), folder);
  EXPECT_EQ(FolderOf("sub/" + name_), folder);
}

TEST_F(ExecutableSearch, WithoutASearchPathOnlyTheFoldersCount) {
  SetEnvironmentVariableA("PATH", nullptr);
  std::string found;
  EXPECT_FALSE(FindFile(name_, found));
  fs::current_path(first_.Path());
  first_.Write(name_, "");
  EXPECT_TRUE(FindFile(name_, found));
}

}  // namespace
}  // namespace kestrun
