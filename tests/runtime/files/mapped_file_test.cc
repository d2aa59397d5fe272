#include "runtime/files/mapped_file.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/expect_throw.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::ExpectThrow;
using test::TempFolder;
using test::UniqueName;

constexpr u32 kRegionSize = 0x20000;

std::string Bytes(const rc_ptr<MappedFile::ViewImpl>& view, u32 count) {
  return std::string(static_cast<const char*>(view->GetData()), count);
}

TEST(MappedFile, ShowsAFile) {
  TempFolder folder;
  MappedFile file(folder.Write("f", "content"), MappedFile::kReadOnly);
  EXPECT_TRUE(file.IsFileOpen());
  EXPECT_EQ(file.GetSize(), 7u);
  EXPECT_GT(file.GetLastWriteTime(), 0u);
  {
    auto whole = file.CreateView(0, MappedFile::kWholeSize, false);
    auto start = file.CreateView(0, 3, false);
    EXPECT_EQ(whole->GetSize(), 7u);
    EXPECT_EQ(Bytes(whole, 7), "content");
    EXPECT_EQ(start->GetSize(), 3u);
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(whole->GetData(), nullptr);
    EXPECT_EQ(start->GetSize(), 0u);
  }
  EXPECT_FALSE(file.IsFileOpen());
  EXPECT_EQ(file.GetPath(), "");
  ExpectThrow<MappedFileException>([&] { file.CreateView(0, 1, false); }, "Cannot map file: ", -1,
                                   "MappedFileException");
}

TEST(MappedFile, TellsWhyAFileCanNotBeMapped) {
  TempFolder folder;
  std::string missing = folder.File("nofile");
  ExpectThrow<MappedFileException>([&] { MappedFile file(missing, MappedFile::kReadOnly); },
                                   "Cannot open file: " + missing);
  std::string empty = folder.Write("empty", "");
  MappedFile file(empty, MappedFile::kReadOnly);
  ExpectThrow<MappedFileException>([&] { file.CreateView(0, MappedFile::kWholeSize, false); },
                                   "Could not create view onto MappedFile " + empty);
}

TEST(MappedFile, RegionIsOneMemoryUnderItsName) {
  std::string name = UniqueName();
  MappedFile creator(name, kRegionSize, true);
  MappedFile opener(name, 0, false);
  EXPECT_EQ(creator.GetSize(), 0xFFFFFFFFu);
  EXPECT_EQ(creator.GetLastWriteTime(), 0u);
  auto written = creator.CreateView(0, MappedFile::kWholeSize, true);
  auto read = opener.CreateView(0, 16, false);
  EXPECT_EQ(written->GetSize(), kRegionSize);
  EXPECT_EQ(Bytes(written, kRegionSize), std::string(kRegionSize, '\0'));
  static_cast<char*>(written->GetData())[kRegionSize - 1] = 'z';
  std::memcpy(written->GetData(), "shared", 6);
  EXPECT_EQ(Bytes(read, 6), "shared");
}

TEST(MappedFile, RegionRefusesWrongSizesAndNames) {
  std::string name = UniqueName();
  ExpectThrow<MappedFileException>([&] { MappedFile region(name, kRegionSize + 1, true); },
                                   "Mapping size must be a multiple of system page size");
  ExpectThrow<MappedFileException>([&] { MappedFile region(name, 0, true); },
                                   "Cannot create anonymous mapped region of size zero!");
  ExpectThrow<MappedFileException>([&] { MappedFile region(name, 0, false); }, "Mapping does not exist");
  ExpectThrow<MappedFileException>([&] { MappedFile region(name, kRegionSize, false); },
                                   "Opening anonymous mapped region, size must be zero");
  {
    MappedFile region(name, kRegionSize, true);
    ExpectThrow<MappedFileException>([&] { MappedFile second(name, kRegionSize, true); }, "Mapping already exists");
  }
  ExpectThrow<MappedFileException>([&] { MappedFile region(name, 0, false); }, "Mapping does not exist");
}

}  // namespace
}  // namespace kestrun
