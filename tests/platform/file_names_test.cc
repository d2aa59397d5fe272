#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

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
