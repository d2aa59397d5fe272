#include "runtime/system_utilities.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/win32.h"
#include "runtime/environment.h"
#include "runtime/error_text.h"
#include "runtime/exception.h"
#include "runtime/handle.h"
#include "runtime/version.h"
#include "support/expect_throw.h"
#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

TEST(CommonPath, FollowsItsVariable) {
  std::string saved;
  GetEnvironmentValue("RV_COMMON_PATH", saved);
  SetEnvironmentVariableA("RV_COMMON_PATH", "D:\\C");
  EXPECT_EQ(GetCommonPath().ToString(), "D:\\C\\DORN\\");
  EXPECT_EQ((GetCommonPath() / "Zelvo.ini").ToString(), "D:\\C\\DORN\\Zelvo.ini");
  SetEnvironmentVariableA("RV_COMMON_PATH", nullptr);
  EXPECT_TRUE(GetCommonPath().IsAbsolute());
  EXPECT_NE(GetCommonPath().ToString().find("Ravelin Works"), std::string::npos);
  SetEnvironmentVariableA("RV_COMMON_PATH", saved.empty() ? nullptr : saved.c_str());
}

TEST(TempFiles, AreNewAndEmptyAndInTheTemporaryFolder) {
  const std::string first = CreateTempFile(".tst");
  const std::string second = CreateTempFile(".tst");
  EXPECT_NE(first, second);
  EXPECT_EQ(Path(first).GetDirectory(), GetTempDirectory());
  EXPECT_EQ(Path(first).GetLeaf().substr(0, 5), "plovr");
  EXPECT_EQ(first.substr(first.size() - 4), ".tst");
  for (const std::string& file : {first, second}) {
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(fs::file_size(file), 0u);
    fs::remove(file);
  }
}

TEST(TempFiles, AFolderThatCannotHoldOneEndsInAnException) {
  test::ExpectThrow<PLV::Exception>([] { CreateTempFile("/no/such/folder/below"); },
                                    "Cannot create unique temp file name!", ERROR_ALREADY_EXISTS);
}

TEST(Trees, AreDeletedWholeButLinksAreNotFollowed) {
  const test::TempFolder folder;
  const test::TempFolder other;
  other.Write("keep", "x");
  fs::create_directories(folder.Path() / "tree" / "a" / "b");
  folder.Write("tree/a/b/file", "x");
  folder.Write("tree/file.with.dots", "x");
  std::error_code noLinksHere;
  fs::create_directory_symlink(other.Path(), folder.Path() / "tree" / "link", noLinksHere);
  EXPECT_TRUE(DeleteTree(Path(folder.File("tree"))));
  EXPECT_FALSE(fs::exists(folder.Path() / "tree"));
  EXPECT_TRUE(fs::exists(other.File("keep")));
  EXPECT_FALSE(DeleteTree(Path(folder.File("tree"))));
}

TEST(ExpandEnvironment, ReplacesWhatIsDefinedAndKeepsTheRest) {
  const std::string name = test::UniqueName("KESTRUN_TEST");
  SetEnvironmentVariableA(name.c_str(), "value");
  EXPECT_EQ(ExpandEnvironment("<%" + name + "%|%" + name + "_none%|100%>"), "<value|%" + name + "_none%|100%>");
  // What stands between two percent signs is a reference, whatever it was meant to be; a value is none.
  EXPECT_EQ(ExpandEnvironment("100% %" + name + "%"), "100% %" + name + "%");
  SetEnvironmentVariableA(name.c_str(), "v%x");
  EXPECT_EQ(ExpandEnvironment("%" + name + "% %" + name + "%"), "v%x v%x");
  SetEnvironmentVariableA(name.c_str(), std::string(3000, 'x').c_str());
  const std::string tooLong = "%" + name + "%%" + name + "%";
  EXPECT_EQ(ExpandEnvironment(tooLong), tooLong);
}

TEST(ReadTextFile, GivesTheBytesAndTheirNumber) {
  const test::TempFolder folder;
  const std::string bytes("a\r\nb\0c\n", 7);
  std::string text = "old";
  std::string error;
  u32 size = 99;
  EXPECT_TRUE(ReadTextFile(Path(folder.Write("some", bytes)), &text, &size, &error));
  EXPECT_EQ(text, bytes);
  EXPECT_EQ(size, 7u);
  EXPECT_TRUE(ReadTextFile(Path(folder.Write("empty", "")), &text, &size, &error));
  EXPECT_EQ(text, "");
  EXPECT_EQ(size, 0u);
  EXPECT_TRUE(ReadTextFile(Path(folder.File("some")), nullptr, nullptr, &error));
  EXPECT_EQ(error, "");
  const UniqueFile held(CreateFileA(folder.File("some").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  for (const std::string& file : {folder.File("missing"), folder.File("some"), folder.File("")}) {
    error.clear();
    EXPECT_FALSE(ReadTextFile(Path(file), &text, &size, &error));
    EXPECT_EQ(error, "Could not open mapped file") << file;
  }
}

TEST(AssertFailed, OnlyReports) {
  testing::internal::CaptureStderr();
  AssertFailed("a == b", "x.cc", 12);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERTION FAILED(a == b) at x.cc:12\n");
}

TEST(Environment, ABlockHoldsTheEntriesInKeyOrder) {
  const std::unique_ptr<char[]> block = BuildEnvironmentBlock({{"b", "2"}, {"B", ""}, {"a", "x=y"}});
  EXPECT_EQ(std::string(block.get(), 14), std::string("B=\0a=x=y\0b=2\0\0", 14));
  EXPECT_EQ(BuildEnvironmentBlock({})[0], '\0');
}

TEST(Environment, ParsingEndsTheKeyAtTheFirstEqualsAndKeepsTheLastOfAKey) {
  Environment environment{{"old", "kept"}};
  ParseEnvironmentBlock("a=1\0noequals\0=C:=C:\\x\0=D:=D:\\y\0a=2=3\0\0", environment);
  EXPECT_EQ(environment, (Environment{{"old", "kept"}, {"a", "2=3"}, {"", "D:=D:\\y"}}));
}

TEST(Environment, TheProcessSeesWhatItSets) {
  const std::string name = test::UniqueName("KESTRUN_TEST");
  std::string value = "untouched";
  EXPECT_FALSE(GetEnvironmentValue(name, value));
  EXPECT_EQ(value, "untouched");
  // 255 characters are the most that fit without a second look.
  for (const std::size_t length : {1, 255, 256, 257, 5000}) {
    const std::string set(length, 'x');
    ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), set.c_str()));
    EXPECT_TRUE(GetEnvironmentValue(name, value));
    EXPECT_EQ(value, set);
    EXPECT_EQ(GetEnvironment()[name], set);
  }
  ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), nullptr));
  EXPECT_FALSE(GetEnvironmentValue(name, value));
}

TEST(Version, AFileWithoutOneLeavesTheNumberAlone) {
  const test::TempFolder folder;
  VersionNumber version(9, 9, 9, 9);
  EXPECT_FALSE(GetFileVersion(folder.File("missing"), version));
  EXPECT_FALSE(GetFileVersion(folder.Write("text.exe", "no program at all"), version));
  EXPECT_FALSE(GetFileVersion(folder.Write("short.exe", std::string("\x7f") + "ELF\x02\x01"), version));
  EXPECT_EQ(version.ToString(), "9.9.9.9");
}

TEST(ErrorText, IsTheSystemsWithItsLineEnd) {
  const std::string text = GetErrorText(2);
  ASSERT_GT(text.size(), 2u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
  EXPECT_NE(text, GetErrorText(5));
  EXPECT_EQ(GetErrorText(0x2FFFFFFF), "");
}

}  // namespace
}  // namespace kestrun
