#include "platform/linux/files/file_names.h"

#include <gtest/gtest.h>

#include <filesystem>
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

TEST(FileNames, PatternsMatchWholeNames) {
  for (const char* pattern : {"a.b", "*", "a*", "*b", "a?b", "???", "*.*", "a**b", "*a*.*b*"}) {
    EXPECT_TRUE(platform::MatchesPattern("a.b", pattern)) << pattern;
  }
  for (const char* pattern : {"", "a", "b*", "*a", "??", "????", "a.b?", "*c*"}) {
    EXPECT_FALSE(platform::MatchesPattern("a.b", pattern)) << pattern;
  }
  EXPECT_TRUE(platform::MatchesPattern("aab.aab", "*aab")) << "the first place that fits is not always the right one";
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
