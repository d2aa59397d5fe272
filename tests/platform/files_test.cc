#include <gtest/gtest.h>

#include <cstdint>
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

bool Put(HANDLE file, const std::string& text) {
  DWORD written = 0;
  return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) && written == text.size();
}

std::string Get(HANDLE file, DWORD count) {
  std::string text(count, '\0');
  DWORD read = 0;
  if (!ReadFile(file, text.data(), count, &read, nullptr)) return "failed";
  text.resize(read);
  return text;
}

WIN32_FILE_ATTRIBUTE_DATA Status(const std::string& name) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  EXPECT_TRUE(GetFileAttributesExA(name.c_str(), GetFileExInfoStandard, &data)) << name << " " << GetLastError();
  return data;
}

TEST(FilesTest, DispositionsTellWhatWasThere) {
  TempFolder folder;
  const std::string old = folder.Write("old", "content");
  EXPECT_EQ(OpenError(old, 0, CREATE_NEW), ERROR_FILE_EXISTS);
  EXPECT_EQ(OpenError(folder.File("none"), 0, OPEN_EXISTING), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(OpenError(folder.File("none/none"), 0, OPEN_EXISTING), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(OpenError(folder.File("none/none"), 0, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(OpenError(folder.Path().string(), kShareAll, OPEN_EXISTING), ERROR_ACCESS_DENIED);

  const struct {
    const char* name;
    DWORD disposition;
    DWORD lastError;
    const char* contentAfter;
  } kOpens[] = {{"old", OPEN_ALWAYS, ERROR_ALREADY_EXISTS, "content"},
                {"old", OPEN_EXISTING, 0, "content"},
                {"old", CREATE_ALWAYS, ERROR_ALREADY_EXISTS, ""},
                {"new1", OPEN_ALWAYS, 0, ""},
                {"new2", CREATE_ALWAYS, 0, ""},
                {"new3", CREATE_NEW, 0, ""}};
  for (const auto& open : kOpens) {
    SetLastError(12345);
    const HANDLE file = Open(folder.File(open.name), 0, open.disposition);
    const DWORD error = GetLastError();
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << open.name;
    if (open.disposition == OPEN_ALWAYS || open.disposition == CREATE_ALWAYS) {
      EXPECT_EQ(error, open.lastError) << open.name;
    }
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
}

TEST(FilesTest, ARefusedCreateLeavesTheContent) {
  TempFolder folder;
  const std::string name = folder.Write("file", "content");
  const HANDLE holder = Open(name, 0, OPEN_EXISTING);
  EXPECT_EQ(OpenError(name, kShareAll, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
  CloseHandle(holder);
  EXPECT_EQ(folder.Read("file"), "content");
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

TEST(FilesTest, ReadsAndWritesAtThePointer) {
  TempFolder folder;
  const HANDLE file = Open(folder.File("file"), 0, CREATE_NEW);
  ASSERT_TRUE(Put(file, "0123456789"));
  EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 10u);
  EXPECT_EQ(Get(file, 4), "");
  EXPECT_EQ(SetFilePointer(file, 2, nullptr, FILE_BEGIN), 2u);
  EXPECT_EQ(Get(file, 3), "234");
  EXPECT_EQ(SetFilePointer(file, -1, nullptr, FILE_END), 9u);
  EXPECT_EQ(Get(file, 4), "9");
  EXPECT_EQ(SetFilePointer(file, -11, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetFileSize(file, nullptr), 10u);
  LONG high = 1;
  EXPECT_EQ(SetFilePointer(file, 5, &high, FILE_BEGIN), 5u);
  EXPECT_EQ(high, 1);
  ASSERT_TRUE(SetEndOfFile(file));
  DWORD sizeHigh = 0;
  EXPECT_EQ(GetFileSize(file, &sizeHigh), 5u);
  EXPECT_EQ(sizeHigh, 1u);
  CloseHandle(file);
}

TEST(FilesTest, AccessIsHeldTo) {
  TempFolder folder;
  const std::string name = folder.Write("file", "content");
  const HANDLE reader = CreateFileA(name.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  const HANDLE writer = CreateFileA(name.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  DWORD count = 9;
  EXPECT_FALSE(WriteFile(reader, "x", 1, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(count, 0u);
  char byte = 0;
  EXPECT_FALSE(ReadFile(writer, &byte, 1, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  CloseHandle(reader);
  CloseHandle(writer);
  EXPECT_FALSE(ReadFile(reader, &byte, 1, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(FilesTest, FoldersComeAndGo) {
  TempFolder folder;
  const std::string made = folder.File("made");
  const std::string file = folder.Write("file", "");
  const auto fails = [](BOOL result, DWORD error) { return !result && GetLastError() == error; };
  EXPECT_TRUE(CreateDirectoryA(made.c_str(), nullptr));
  EXPECT_TRUE(fails(CreateDirectoryA(made.c_str(), nullptr), ERROR_ALREADY_EXISTS));
  EXPECT_TRUE(fails(CreateDirectoryA(folder.File("none/below").c_str(), nullptr), ERROR_PATH_NOT_FOUND));
  EXPECT_TRUE(CreateDirectoryA((made + "/below").c_str(), nullptr));
  EXPECT_TRUE(fails(RemoveDirectoryA(made.c_str()), ERROR_DIR_NOT_EMPTY));
  EXPECT_TRUE(fails(RemoveDirectoryA(file.c_str()), ERROR_DIRECTORY));
  EXPECT_TRUE(RemoveDirectoryA((made + "\\below").c_str()));
  EXPECT_TRUE(RemoveDirectoryA(made.c_str()));
  EXPECT_TRUE(fails(RemoveDirectoryA(made.c_str()), ERROR_FILE_NOT_FOUND));
}

TEST(FilesTest, AttributesTellKindSizeAndTime) {
  TempFolder folder;
  FILETIME before;
  GetSystemTimeAsFileTime(&before);
  const std::string name = folder.Write("file", "12345");
  const WIN32_FILE_ATTRIBUTE_DATA data = Status(name);
  EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
  EXPECT_EQ(data.nFileSizeLow, 5u);
  EXPECT_EQ(data.nFileSizeHigh, 0u);
  EXPECT_NE(Status(folder.Path().string()).dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
  EXPECT_EQ(GetFileAttributesA(folder.File("none").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetFileAttributesA(folder.File("none/none").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);

  // File systems round a time, and take it from a clock that ticks.
  const auto seconds = [](const FILETIME& time) {
    return ((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 10'000'000;
  };
  EXPECT_NEAR(static_cast<double>(seconds(data.ftLastWriteTime)), static_cast<double>(seconds(before)), 10.0);
  const HANDLE file = Open(name, 0, OPEN_EXISTING);
  FILETIME written{};
  ASSERT_TRUE(GetFileTime(file, nullptr, nullptr, &written));
  EXPECT_EQ(CompareFileTime(&written, &data.ftLastWriteTime), 0);
  CloseHandle(file);
}

TEST(FilesTest, BothSeparatorsAreTaken) {
  TempFolder folder;
  ASSERT_TRUE(CreateDirectoryA((folder.Path().string() + "\\a").c_str(), nullptr));
  EXPECT_EQ(OpenError(folder.Path().string() + "/a\\b", 0, CREATE_NEW), 0u);
  EXPECT_EQ(OpenError(folder.Path().string() + "\\a/b", 0, OPEN_EXISTING), 0u);
  EXPECT_TRUE(DeleteFileA((folder.Path().string() + "\\a\\b").c_str()));
}

TEST(FilesTest, MoveReplacesOnlyWhenAsked) {
  TempFolder folder;
  const std::string from = folder.Write("from", "new");
  const std::string to = folder.Write("to", "old");
  EXPECT_FALSE(MoveFileExA(from.c_str(), to.c_str(), 0));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(folder.Read("to"), "new");
  EXPECT_FALSE(MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

}  // namespace
}  // namespace kestrun::test
