#include "platform/linux/files/file_names.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "platform/host.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

// An executable file of the folder.
std::string WriteProgram(const TempFolder& folder, const std::string& name) {
  const std::string full = folder.Write(name, "#!/bin/sh\n");
  std::filesystem::permissions(full, std::filesystem::perms::owner_all);
  return full;
}

bool Exists(const std::string& name) {
  return GetFileAttributesA(name.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string LongName(const std::string& name) {
  char buffer[MAX_PATH];
  return GetLongPathNameA(name.c_str(), buffer, MAX_PATH) != 0 ? buffer : "none";
}

TEST(FileNames, AProgramIsFoundWithAnEndingThatItLacks) {
  TempFolder folder;
  const std::string tool = WriteProgram(folder, "tool");
  folder.Write("text", "");
  std::filesystem::create_directory(folder.Path() / "folder");
  EXPECT_TRUE(Exists(tool + ".exe"));
  EXPECT_EQ(LongName(tool + ".EXE"), tool);
  EXPECT_FALSE(Exists(folder.File("text.exe")));
  EXPECT_FALSE(Exists(folder.File("folder.exe")));
  EXPECT_FALSE(Exists(folder.File(".exe")));
  // The exact name goes first, whatever it is.
  const std::string exact = folder.Write("tool.exe", "");
  EXPECT_EQ(LongName(exact), exact);
}

TEST(FileNames, TheLookupWithoutCaseTakesTheSmallestProgram) {
  TempFolder folder;
  WriteProgram(folder, "Tool");
  WriteProgram(folder, "tooL");
  folder.Write("TOOL", "no program");
  std::string found;
  ASSERT_TRUE(platform::FindExecutableIgnoringCase(folder.File("tool.exe"), found));
  EXPECT_EQ(found, folder.File("Tool"));
  WriteProgram(folder, "tOOl.exe");
  ASSERT_TRUE(platform::FindExecutableIgnoringCase(folder.File("tool.exe"), found));
  EXPECT_EQ(found, folder.File("tOOl.exe"));
  EXPECT_FALSE(platform::FindExecutableIgnoringCase(folder.File("other.exe"), found));
  EXPECT_FALSE(platform::FindExecutableIgnoringCase(folder.File("none/tool.exe"), found));
}

// Walks the characters one by one and knows no shortcut.
bool SlowlyMatches(const std::string& name, const std::string& pattern) {
  if (pattern.empty()) return name.empty();
  if (pattern[0] == '*') {
    return SlowlyMatches(name, pattern.substr(1)) || (!name.empty() && SlowlyMatches(name.substr(1), pattern));
  }
  return !name.empty() && (pattern[0] == '?' || pattern[0] == name[0]) &&
         SlowlyMatches(name.substr(1), pattern.substr(1));
}

TEST(FileNames, PatternsAgreeWithTheSlowWay) {
  std::mt19937 random(20260309);
  const auto text = [&random](const char* letters, std::size_t most) {
    std::string made(random() % (most + 1), ' ');
    for (char& letter : made) letter = letters[random() % 4];
    return made;
  };
  for (int i = 0; i < 20000; ++i) {
    const std::string name = text("aab.", 8);
    const std::string pattern = text("ab*?", 6);
    ASSERT_EQ(platform::MatchesPattern(name, pattern), SlowlyMatches(name, pattern)) << name << " " << pattern;
  }
}

TEST(FileNames, FullPathsNeedNoDisk) {
  const struct {
    const char* name;
    const char* full;
  } kCases[] = {
      {"/", "/"},     {"/..", "/"},    {"/a//b/./", "/a/b/"}, {"/a/b/../../..", "/"}, {"x", "/cwd/x"},
      {"../x", "/x"}, {"./", "/cwd/"}, {"a/..", "/cwd"},      {"/a/..b", "/a/..b"},   {"/a/.b/...", "/a/.b/..."},
      {"", ""}};
  for (const auto& c : kCases) EXPECT_EQ(platform::LexicalFullPath(c.name, "/cwd"), c.full) << c.name;
}

}  // namespace
}  // namespace kestrun::test
