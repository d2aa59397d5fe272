#include <gtest/gtest.h>

#include <cstring>

#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

constexpr DWORD kRegionSize = 0x20000;

char* ViewOf(HANDLE mapping, DWORD access = FILE_MAP_WRITE) {
  return static_cast<char*>(MapViewOfFile(mapping, access, 0, 0, 0));
}

KESTRUN_CHILD(AnswersInRegion) {
  ScopedHandle mapping = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, words[0].c_str());
  char* view = ViewOf(mapping);
  if (!view || std::strcmp(view, "question") != 0) return 1;
  std::strcpy(view + kRegionSize - 16, "answer");
  return UnmapViewOfFile(view) ? 0 : 2;
}

TEST(Mapping, ARegionIsZeroedAndSharedAndItsViewOutlivesTheHandle) {
  const std::string name = UniqueName();
  ScopedHandle mapping =
      CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kRegionSize, name.c_str());
  ASSERT_TRUE(mapping);
  char* view = ViewOf(mapping);
  ASSERT_TRUE(view);
  for (DWORD i = 0; i < kRegionSize; ++i) ASSERT_EQ(view[i], 0) << i;
  std::strcpy(view, "question");
  EXPECT_EQ(Child::Self("AnswersInRegion", {name}).Wait(), 0);
  mapping.Close();
  EXPECT_STREQ(view + kRegionSize - 16, "answer");
  EXPECT_TRUE(FlushViewOfFile(view, 0));
  EXPECT_TRUE(UnmapViewOfFile(view));
  EXPECT_FALSE(UnmapViewOfFile(view));
}

TEST(Mapping, AViewTellsItsSizeAndStartsWhereAsked) {
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  ASSERT_GT(system.dwPageSize, 0u);
  const DWORD step = system.dwAllocationGranularity;
  ScopedHandle mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 2 * step, nullptr);
  char* whole = ViewOf(mapping);
  char* half = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, step, 0));
  ASSERT_TRUE(whole && half);
  whole[step] = 'x';
  EXPECT_EQ(half[0], 'x');
  MEMORY_BASIC_INFORMATION information{};
  EXPECT_EQ(VirtualQuery(whole, &information, sizeof information), sizeof information);
  EXPECT_EQ(information.RegionSize, 2 * step);
  EXPECT_EQ(VirtualQuery(half, &information, sizeof information), sizeof information);
  EXPECT_EQ(information.RegionSize, step);
  UnmapViewOfFile(whole);
  UnmapViewOfFile(half);
  EXPECT_FALSE(MapViewOfFile(mapping, FILE_MAP_READ, 0, 1, 0));
}

HANDLE OpenToMap(const std::string& path, DWORD access) {
  return CreateFileA(path.c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

TEST(Mapping, ADiskFileIsReadAndWrittenThroughItsView) {
  TempFolder folder;
  const std::string path = folder.Write("file", "some text");
  {
    ScopedHandle file = OpenToMap(path, GENERIC_READ | GENERIC_WRITE);
    ScopedHandle mapping = CreateFileMappingA(file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
    char* view = ViewOf(mapping);
    ASSERT_TRUE(view);
    EXPECT_EQ(std::string(view, 9), "some text");
    view[0] = 'S';
    EXPECT_TRUE(UnmapViewOfFile(view));
  }
  EXPECT_EQ(folder.Read("file"), "Some text");
}

TEST(Mapping, WhatCannotBeMappedIsRefused) {
  TempFolder folder;
  ScopedHandle empty = OpenToMap(folder.Write("empty", ""), GENERIC_READ);
  EXPECT_FALSE(CreateFileMappingA(empty, nullptr, PAGE_READONLY, 0, 0, nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_INVALID});
  ScopedHandle file = OpenToMap(folder.Write("file", "x"), GENERIC_READ);
  EXPECT_FALSE(CreateFileMappingA(file, nullptr, PAGE_READWRITE, 0, 0, nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  ScopedHandle readOnly = CreateFileMappingA(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
  EXPECT_TRUE(readOnly);
  EXPECT_FALSE(ViewOf(readOnly, FILE_MAP_WRITE));
  EXPECT_FALSE(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 0, nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace kestrun::test
