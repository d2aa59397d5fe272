#include "runtime/files/path.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/names.h"

namespace kestrun {

// How a failed comparison shows a path.
void PrintTo(const Path& path, std::ostream* out) {
  *out << '[' << path.ToString() << ']';
}

namespace {

using Pieces = std::vector<std::string>;

struct Parts {
  std::string root;
  Pieces directories;
  std::string name, extension;
  bool operator==(const Parts&) const = default;
};

Parts SplitParts(const Path& path) {
  Parts parts;
  Split(path, parts.root, parts.directories, parts.name, parts.extension);
  return parts;
}

std::string JoinParts(const Parts& parts) {
  return Join(parts.root, parts.directories, parts.name, parts.extension).ToString();
}

TEST(Path, SplitTakesFourParts) {
  EXPECT_EQ(SplitParts("C:\\a\\b\\file.tar.gz"), (Parts{"C:\\", {"a", "b"}, "file.tar", ".gz"}));
  EXPECT_EQ(SplitParts("\\\\srv\\share\\f.txt"), (Parts{"\\\\srv\\", {"share"}, "f", ".txt"}));
  EXPECT_EQ(SplitParts("a.b\\c"), (Parts{"", {"a.b"}, "c", ""}));
  EXPECT_EQ(SplitParts(".profile"), (Parts{"", {}, "", ".profile"}));
}

// Every text of up to six of these characters holds every combination of roots, separators and dots that matters.
template <class Check>
void ForEachShortPath(Check check) {
  const std::string alphabet = "a.\\/:";
  std::vector<std::string> texts = {""};
  for (size_t begin = 0, length = 1; length <= 6; ++length) {
    size_t end = texts.size();
    for (; begin < end; ++begin) {
      for (char c : alphabet) texts.push_back(texts[begin] + c);
    }
  }
  for (const std::string& text : texts) {
    check(text);
    if (::testing::Test::HasFailure()) FAIL() << "with \"" << text << "\"";
  }
}

TEST(Path, JoinAndCanonicaliseComeToRest) {
  ForEachShortPath([](const std::string& text) {
    // No name holds a colon: behind a "." that goes it would turn into a drive.
    if (text.find(':', 2) != std::string::npos) return;
    Parts parts = SplitParts(text);
    std::string joined = JoinParts(parts);
    EXPECT_EQ(joined.find('/'), std::string::npos);
    EXPECT_EQ(JoinParts(SplitParts(joined)), joined);
    Path canonical = Canonicalise(Path(text));
    EXPECT_EQ(Canonicalise(canonical).ToString(), canonical.ToString());
    Pieces directories = SplitParts(canonical).directories;
    EXPECT_EQ(std::count(directories.begin(), directories.end(), "."), 0);
    EXPECT_EQ(std::count(directories.begin(), directories.end(), ".."), 0);
  });
}

TEST(Path, CanonicaliseResolvesDots) {
  EXPECT_EQ(Canonicalise(Path("..\\x\\..\\y")).ToString(), "y");
  EXPECT_EQ(Canonicalise(Path("C:/a/./b//../c.txt")).ToString(), "C:\\a\\c.txt");
  EXPECT_EQ(Canonicalise(Path("a\\..")).ToString(), "a\\..");
  std::string current = GetCurrentDirectory().ToString();
  bool hasDrive = current.size() > 2 && current[1] == ':';
  EXPECT_EQ(Canonicalise(Path("/x")).ToString(), hasDrive ? current.substr(0, 3) + "x" : "\\x");
}

TEST(Path, EqualityIgnoresCaseSeparatorsAndDetours) {
  EXPECT_EQ(Path("C:\\a\\..\\b"), Path("c:/B"));
  EXPECT_EQ(Path("a//b"), Path("a\\b"));
  EXPECT_FALSE(Path("a") == Path("b"));
  EXPECT_FALSE(Path("") == Path("a"));
  EXPECT_EQ(Path(), Path(""));
  EXPECT_NE(ComparePaths(Path("a"), Path("A"), false), 0);
  EXPECT_EQ(ComparePaths(Path("a"), Path("A"), true), 0);
}

TEST(Path, LosesItsQuotes) {
  EXPECT_EQ(Path("\"C:\\my tools\"").ToString(), "C:\\my tools");
  EXPECT_EQ(Path("\"abc").ToString(), "ab");
  EXPECT_EQ(Path("abc\"").ToString(), "abc\"");
  EXPECT_EQ(Path("\"").ToString(), "");
  EXPECT_EQ(Path("C:/a\\b").GetQuoted('/'), "\"C:/a/b\"");
}

TEST(Path, JoinsWithOneSeparator) {
  EXPECT_EQ((Path("a") / "b").ToString(), "a\\b");
  EXPECT_EQ((Path("a/") / "b").ToString(), "a/b");
  EXPECT_EQ((Path("") / "b").ToString(), "b");
  EXPECT_EQ((Path("a") / "\\b").ToString(), "a\\\\b");
  Path twice("a");
  twice /= twice;
  EXPECT_EQ(twice.ToString(), "a\\a");
}

TEST(Path, AnswersByItsText) {
  for (const char* text : {"\\x", "/x", "C:\\", "c:/x", "\\\\srv\\x"}) EXPECT_TRUE(Path(text).IsAbsolute()) << text;
  for (const char* text : {"", "x", "C:", "C:x", "x\\y"}) EXPECT_FALSE(Path(text).IsAbsolute()) << text;
  EXPECT_EQ(Path("C:/a/b.c").GetDirectory().ToString(), "C:\\a\\");
  EXPECT_EQ(Path("b.c").GetDirectory().ToString(), "");
  EXPECT_EQ(Path("a/archive.tar.gz").GetLeaf(), "archive.tar.gz");
  EXPECT_EQ(Path("archive.tar.gz").GetBaseName(), "archive.tar");
  EXPECT_EQ(Path("a.b\\make").GetBaseName(), "make");
  EXPECT_EQ(Path("C:\\a\\b").WithoutRoot().ToString(), "\\a\\b");
  EXPECT_EQ(Path("\\\\srv\\a\\b").WithoutRoot().ToString(), "\\a\\b");
  EXPECT_EQ(Path("a\\b").WithoutRoot().ToString(), "a\\b");
}

TEST(Path, CreatesDirectoriesAndFindsThem) {
  test::TempFolder folder;
  Path top(folder.File("top"));
  Path deep = top / "x" / "y.z";
  EXPECT_FALSE(deep.Exists());
  EXPECT_TRUE((deep / "file.txt").CreateParentDirectories());
  EXPECT_TRUE(deep.IsDirectory());
  EXPECT_FALSE((deep / "file.txt").Exists());
  EXPECT_TRUE(deep.CreateDirectories());
  EXPECT_TRUE((top / "other").CreateDirectories());
  Path file(folder.Write("plain", "12345"));
  EXPECT_TRUE(file.Exists());
  EXPECT_FALSE(file.IsDirectory());
  EXPECT_FALSE((file / "below").CreateDirectories());
  FileInfo info;
  EXPECT_NE(GetAttributes(file, &info), kNoAttributes);
  EXPECT_EQ(info.size, 5u);
  // File systems round a time, and take it from a clock that ticks.
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const u64 ticks = static_cast<u64>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
  EXPECT_NEAR(static_cast<double>(info.writeTime), static_cast<double>(ticks), 60e7);

  std::vector<Path> entries;
  ASSERT_TRUE(ListDirectory(top, "*", entries));
  Pieces names;
  for (const Path& entry : entries) names.push_back(entry.GetLeaf());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Pieces{"other", "x"}));
  EXPECT_EQ(entries[0].GetDirectory(), top / "");
  EXPECT_FALSE(ListDirectory(top, "nothing*", entries));
}

TEST(Path, LookupsFallBackOnTheirInput) {
  test::TempFolder folder;
  Path missing(folder.File("missing/really"));
  EXPECT_EQ(GetLongName(missing).ToString(), missing.ToString());
  EXPECT_EQ(GetLongName(Path(folder.Write("there", ""))), Path(folder.File("there")));
  EXPECT_EQ(GetShortName(missing).ToString(), missing.ToString());
  EXPECT_EQ(GetFullPath(Path(std::string(300, 'x'))).ToString(), std::string(300, 'x'));
  EXPECT_TRUE(GetFullPath(Path("x")).IsAbsolute());
  EXPECT_EQ(ResolveSubst(Path("\\a\\b")).ToString(), "\\a\\b");
  EXPECT_EQ(ToDevicePath(Path("a")).ToString(), "a");
}

TEST(WidePath, FollowsTheSameRules) {
  test::TempFolder folder;
  WidePath top(folder.Path().wstring());
  EXPECT_TRUE(top.IsDirectory());
  EXPECT_TRUE((top / L"x\u20ac/y").CreateDirectories());
  std::vector<WidePath> entries;
  ASSERT_TRUE(ListDirectory(top, std::wstring(L"*"), entries));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(entries[0] == top / L"X\u20ac");
  EXPECT_EQ(WidePath(L"\"a/b.c\"").GetBaseName(), L"b");
  EXPECT_TRUE(GetCurrentDirectory<wchar_t>().IsAbsolute());
}

}  // namespace
}  // namespace kestrun
