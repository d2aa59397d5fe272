#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

// Opens for reading and writing.
HANDLE Open(const std::string& name, DWORD share, DWORD disposition) {
  return CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                     nullptr);
}

// The error of an open, 0 for none.
DWORD OpenError(const std::string& name, DWORD share, DWORD disposition) {
  const HANDLE file = Open(name, share, disposition);
  if (file == INVALID_HANDLE_VALUE) return GetLastError();
  CloseHandle(file);
  return 0;
}

TEST(FilesTest, DispositionsTellWhatWasThere) {
  TempFolder folder;
  EXPECT_EQ(OpenError(folder.Write("old", "content"), 0, CREATE_NEW), ERROR_FILE_EXISTS);
  EXPECT_EQ(OpenError(folder.File("none"), 0, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(OpenError(folder.File("none/none"), 0, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(OpenError(folder.Path().string(), kShareAll, OPEN_EXISTING), ERROR_ACCESS_DENIED);

  const struct {
    const char* name;
    DWORD disposition;
    DWORD lastError;
    const char* contentAfter;
  } kOpens[] = {{"old", OPEN_ALWAYS, ERROR_ALREADY_EXISTS, "content"},
                {"old", CREATE_ALWAYS, ERROR_ALREADY_EXISTS, ""},
                {"new1", OPEN_ALWAYS, 0, ""},
                {"new2", CREATE_ALWAYS, 0, ""}};
  for (const auto& open : kOpens) {
    SetLastError(12345);
    const HANDLE file = Open(folder.File(open.name), 0, open.disposition);
    EXPECT_EQ(GetLastError(), open.lastError) << open.name;
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << open.name;
    CloseHandle(file);
    EXPECT_EQ(folder.Read(open.name), open.contentAfter) << open.name;
  }
}

TEST(FilesTest, AnOpenWithoutSharingKeepsEveryOtherOut) {
  TempFolder folder;
  const std::string name = folder.Write("file", "content");
  const struct {
    DWORD first, second;
    bool works;
  } kCases[] = {{0, 0, false}, {0, kShareAll, false}, {kShareAll, 0, false}, {kShareAll, kShareAll, true}};
  for (const auto& c : kCases) {
    const HANDLE first = Open(name, c.first, OPEN_EXISTING);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenError(name, c.second, OPEN_EXISTING), c.works ? 0u : ERROR_SHARING_VIOLATION);
    CloseHandle(first);
    EXPECT_EQ(OpenError(name, 0, OPEN_EXISTING), 0u);
  }
  const HANDLE holder = Open(name, 0, OPEN_EXISTING);
  EXPECT_EQ(OpenError(name, kShareAll, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
  CloseHandle(holder);
  EXPECT_EQ(folder.Read("file"), "content") << "a refused create leaves the content";
}

TEST(FilesTest, AnOpenFileCanNotBeDeleted) {
  TempFolder folder;
  const std::string name = folder.Write("file", "content");
  const HANDLE holder = Open(name, kShareAll, OPEN_EXISTING);
  EXPECT_FALSE(DeleteFileA(name.c_str()));
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  CloseHandle(holder);
  EXPECT_TRUE(DeleteFileA(name.c_str()));
  EXPECT_FALSE(DeleteFileA(name.c_str()));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(DeleteFileA(folder.Path().string().c_str()));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

KESTRUN_CHILD(HoldsFile) {
  const HANDLE file = Open(words[0], 0, OPEN_EXISTING);
  Say(file == INVALID_HANDLE_VALUE ? "failed" : "ready");
  AwaitLine();
  return 0;
}

TEST(FilesTest, AKilledProcessHoldsNoFile) {
  TempFolder folder;
  const std::string name = folder.Write("file", "content");
  Child child = Child::Self("HoldsFile", {name});
  ASSERT_EQ(child.ReadLine(), "ready");
  EXPECT_EQ(OpenError(name, kShareAll, OPEN_EXISTING), ERROR_SHARING_VIOLATION);
  child.Kill();
  child.Wait();
  EXPECT_EQ(OpenError(name, 0, OPEN_EXISTING), 0u);
}

// The names that a pattern finds, and the error that ends the search.
std::set<std::string> Find(const std::string& pattern) {
  std::set<std::string> found;
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA(pattern.c_str(), &data);
  for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileA(find, &data)) found.insert(data.cFileName);
  found.insert(std::to_string(GetLastError()));
  if (find != INVALID_HANDLE_VALUE) FindClose(find);
  return found;
}

TEST(FindFilesTest, PatternsSelectNames) {
  TempFolder folder;
  for (const char* name : {"zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc"}) folder.Write(name, "");
  const std::string none = std::to_string(ERROR_FILE_NOT_FOUND);
  const std::string end = std::to_string(ERROR_NO_MORE_FILES);
  using Names = std::set<std::string>;
  const struct {
    const char* pattern;
    Names expected;
  } kCases[] = {{"zelvo*.log", {"zelvo1.log", "zelvo22.log", end}},
                {"zelvo?.log", {"zelvo1.log", end}},
                {"*2*log*", {"zelvo22.log", end}},
                {"abc", {"abc", end}},
                {"*.*", {".", "..", "zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc", end}},
                {"*", {".", "..", "zelvo1.log", "zelvo22.log", "other.log", "abc", "axxc", end}},
                {"*.none", {none}},
                {"none/*", {std::to_string(ERROR_PATH_NOT_FOUND)}}};
  for (const auto& c : kCases) EXPECT_EQ(Find(folder.File(c.pattern)), c.expected) << c.pattern;
}

TEST(Buffers, ThatAreTooSmallGetTheSizeNeeded) {
  char buffer[1024];
  const DWORD size = GetCurrentDirectoryA(sizeof buffer, buffer);
  EXPECT_EQ(GetCurrentDirectoryA(size, buffer), size + 1);
  EXPECT_EQ(GetCurrentDirectoryA(size + 1, buffer), size);
  EXPECT_EQ(GetFullPathNameA(".", size, buffer, nullptr), size + 1);
  EXPECT_EQ(GetFullPathNameA(".", size + 1, buffer, nullptr), size);
  EXPECT_EQ(GetFullPathNameA("a b\\.\\c/..\\d", sizeof buffer, buffer, nullptr), size + 6);
  EXPECT_EQ(GetFullPathNameA("", sizeof buffer, buffer, nullptr), 0u);
  const std::string name = UniqueName("KESTRUN_VARIABLE");
  ASSERT_TRUE(SetEnvironmentVariableA(name.c_str(), "1234567"));
  EXPECT_EQ(GetEnvironmentVariableA(name.c_str(), buffer, 7), 8u);
  EXPECT_EQ(GetEnvironmentVariableA(name.c_str(), buffer, 8), 7u);
}

}  // namespace
}  // namespace kestrun::test
