#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

// The names that a pattern finds; the error number if it finds none.
struct Found {
  std::set<std::string> names;
  DWORD error = 0;
};

Found Find(const std::string& pattern) {
  Found found;
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA(pattern.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) {
    found.error = GetLastError();
    return found;
  }
  do {
    found.names.insert(data.cFileName);
  } while (FindNextFileA(find, &data));
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
  EXPECT_TRUE(FindClose(find));
  return found;
}

std::string Slashes(std::string text) {
  std::replace(text.begin(), text.end(), '\\', '/');
  return text;
}

std::string FullPath(const std::string& name) {
  char buffer[1024];
  const DWORD length = GetFullPathNameA(name.c_str(), sizeof buffer, buffer, nullptr);
  EXPECT_EQ(length, std::strlen(buffer));
  return Slashes(buffer);
}

std::string CurrentFolder() {
  char buffer[1024];
  EXPECT_NE(GetCurrentDirectoryA(sizeof buffer, buffer), 0u);
  return Slashes(buffer);
}

TEST(FindFilesTest, PatternsSelectNames) {
  TempFolder folder;
  for (const char* name : {"zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc"}) folder.Write(name, "");
  using Names = std::set<std::string>;
  const struct {
    const char* pattern;
    Names expected;
  } kCases[] = {{"zelvo*.log", {"zelvo1.log", "zelvo22.log"}},
                {"zelvo?.log", {"zelvo1.log"}},
                {"*.log", {"zelvo1.log", "zelvo22.log", "other.log"}},
                {"a*c", {"abc", "axxc"}},
                {"*2*log*", {"zelvo22.log"}},
                {"abc", {"abc"}},
                {"*.*", {".", "..", "zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc"}},
                {"*", {".", "..", "zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc"}}};
  for (const auto& c : kCases) EXPECT_EQ(Find(folder.File(c.pattern)).names, c.expected) << c.pattern;
}

TEST(FindFilesTest, NothingFoundIsAnError) {
  TempFolder folder;
  EXPECT_EQ(Find(folder.File("*.none")).error, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Find(folder.File("none/*")).error, ERROR_PATH_NOT_FOUND);
}

TEST(FindFilesTest, TellsKindAndSizeAndBearsDeletion) {
  TempFolder folder;
  for (int i = 0; i < 100; ++i) folder.Write("file" + std::to_string(i), "1234567");
  ASSERT_TRUE(CreateDirectoryA(folder.File("folder").c_str(), nullptr));
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA(folder.File("f*").c_str(), &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  int files = 0, folders = 0;
  do {
    const bool isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const std::string name = folder.File(data.cFileName);
    EXPECT_EQ(isFolder ? 7u : data.nFileSizeLow, 7u);
    EXPECT_TRUE(isFolder ? RemoveDirectoryA(name.c_str()) : DeleteFileA(name.c_str())) << name;
    ++(isFolder ? folders : files);
  } while (FindNextFileA(find, &data));
  FindClose(find);
  EXPECT_EQ(files, 100);
  EXPECT_EQ(folders, 1);
}

TEST(FileNamesTest, FullPathsAreMadeAsText) {
  TempFolder folder;
  const std::string root = Slashes(folder.Path().string());
  EXPECT_EQ(FullPath(root + "/a/./b/../c"), root + "/a/c");
  EXPECT_EQ(FullPath(root + "\\none\\\\x.exe"), root + "/none/x.exe");
  EXPECT_EQ(FullPath("some file"), CurrentFolder() + "/some file");
  EXPECT_EQ(FullPath("a/.."), CurrentFolder());
  char buffer[8];
  EXPECT_EQ(GetFullPathNameA("", sizeof buffer, buffer, nullptr), 0u);
}

TEST(FileNamesTest, ATooSmallBufferGetsTheSizeNeeded) {
  const std::string current = CurrentFolder();
  char buffer[1024];
  const auto size = static_cast<DWORD>(current.size());
  EXPECT_EQ(GetCurrentDirectoryA(size, buffer), size + 1);
  EXPECT_EQ(GetCurrentDirectoryA(size + 1, buffer), size);
  EXPECT_EQ(GetFullPathNameA(".", size, buffer, nullptr), size + 1);
  EXPECT_EQ(GetFullPathNameA(".", size + 1, buffer, nullptr), size);
}

TEST(FileNamesTest, LongAndShortNamesAreOfFilesThatExist) {
  TempFolder folder;
  const std::string name = folder.Write("file", "");
  char buffer[1024] = {};
  const auto size = static_cast<DWORD>(sizeof buffer);
  EXPECT_EQ(GetLongPathNameA(name.c_str(), buffer, size), name.size());
  EXPECT_EQ(Slashes(buffer), Slashes(name));
  EXPECT_NE(GetShortPathNameA(name.c_str(), buffer, size), 0u);
  EXPECT_EQ(GetLongPathNameA((name + "2").c_str(), buffer, size), 0u);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetShortPathNameA((name + "2").c_str(), buffer, size), 0u);
}

TEST(FileNamesTest, TheTemporaryFolderEndsInASeparator) {
  char buffer[1024] = {};
  const DWORD length = GetTempPathA(sizeof buffer, buffer);
  ASSERT_EQ(length, std::strlen(buffer));
  EXPECT_EQ(Slashes(buffer).back(), '/');
  EXPECT_NE(GetFileAttributesA(buffer), INVALID_FILE_ATTRIBUTES);
}

TEST(FileNamesTest, WideFormsDoTheSame) {
  TempFolder folder;
  folder.Write("file", "123");
  const std::wstring root = folder.Path().wstring();
  WIN32_FILE_ATTRIBUTE_DATA data;
  ASSERT_TRUE(GetFileAttributesExW((root + L"\\file").c_str(), GetFileExInfoStandard, &data));
  EXPECT_EQ(data.nFileSizeLow, 3u);
  ASSERT_TRUE(CreateDirectoryW((root + L"/\u00e4\u20ac").c_str(), nullptr));
  WIN32_FIND_DATAW found;
  const HANDLE find = FindFirstFileW((root + L"/\u00e4*").c_str(), &found);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  EXPECT_STREQ(found.cFileName, L"\u00e4\u20ac");
  EXPECT_FALSE(FindNextFileW(find, &found));
  FindClose(find);
  wchar_t buffer[1024];
  const DWORD length = GetFullPathNameW((root + L"/a/../file").c_str(), 1024, buffer, nullptr);
  ASSERT_EQ(length, root.size() + 5);
  EXPECT_NE(GetLongPathNameW(buffer, buffer, 1024), 0u);
  EXPECT_TRUE(RemoveDirectoryW((root + L"/\u00e4\u20ac").c_str()));
}

}  // namespace
}  // namespace kestrun::test
