#include "runtime/mapped_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>

#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::TempFolder;
using test::UniqueName;

constexpr u32 kRegionSize = 0x20000;

template <class Call>
void ExpectMappedFileException(Call call, const std::string& text) {
  try {
    call();
    ADD_FAILURE() << "no exception: " << text;
  } catch (const MappedFileException& failure) {
    EXPECT_EQ(failure.what(), text);
    EXPECT_EQ(failure.GetCode(), -1);
    EXPECT_STREQ(failure.GetTypeName(), "MappedFileException");
  }
}

std::string Bytes(const rc_ptr<MappedFile::ViewImpl>& view, u32 count) {
  return std::string(static_cast<const char*>(view->GetData()), count);
}

TEST(MappedFile, ShowsAFile) {
  TempFolder folder;
  MappedFile file(folder.Write("f", "content"), MappedFile::kReadOnly);
  EXPECT_TRUE(file.IsFileOpen());
  EXPECT_FALSE(file.IsMapped());
  EXPECT_EQ(file.GetSize(), 7u);
  EXPECT_GT(file.GetLastWriteTime(), 0u);
  std::ostringstream printed;
  printed << file;
  EXPECT_EQ(printed.str(), "MappedFile:" + folder.File("f"));
  {
    auto whole = file.CreateView(0, MappedFile::kWholeSize, false);
    auto start = file.CreateView(0, 3, false);
    EXPECT_TRUE(file.IsMapped());
    EXPECT_EQ(whole->GetSize(), 7u);
    EXPECT_EQ(Bytes(whole, 7), "content");
    EXPECT_EQ(start->GetSize(), 3u);
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(whole->GetData(), nullptr);
    EXPECT_EQ(start->GetSize(), 0u);
  }
  EXPECT_FALSE(file.IsFileOpen());
  EXPECT_EQ(file.GetPath(), "");
  ExpectMappedFileException([&] { file.CreateView(0, 1, false); }, "Cannot map file: ");
}

TEST(MappedFile, WritesThroughAView) {
  TempFolder folder;
  std::string path = folder.Write("f", "content");
  {
    MappedFile file(path, MappedFile::kWritable);
    auto view = file.CreateView(0, MappedFile::kWholeSize, true);
    std::memcpy(view->GetData(), "CON", 3);
  }
  EXPECT_EQ(folder.Read("f"), "CONtent");
}

TEST(MappedFile, TellsWhyAFileCanNotBeMapped) {
  TempFolder folder;
  std::string missing = folder.File("nofile");
  ExpectMappedFileException([&] { MappedFile file(missing, MappedFile::kReadOnly); }, "Cannot open file: " + missing);
  std::string empty = folder.Write("empty", "");
  MappedFile file(empty, MappedFile::kReadOnly);
  ExpectMappedFileException([&] { file.CreateView(0, MappedFile::kWholeSize, false); },
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
  static_cast<char*>(written->GetData())[kRegionSize - 1] = 'z';
  std::memcpy(written->GetData(), "shared", 6);
  EXPECT_EQ(Bytes(read, 6), "shared");
}

TEST(MappedFile, RegionRefusesWrongSizesAndNames) {
  std::string name = UniqueName();
  ExpectMappedFileException([&] { MappedFile region(name, kRegionSize + 1, true); },
                            "Mapping size must be a multiple of system page size");
  ExpectMappedFileException([&] { MappedFile region(name, 0, true); },
                            "Cannot create anonymous mapped region of size zero!");
  ExpectMappedFileException([&] { MappedFile region(name, 0, false); }, "Mapping does not exist");
  ExpectMappedFileException([&] { MappedFile region(name, kRegionSize, false); },
                            "Opening anonymous mapped region, size must be zero");
  {
    MappedFile region(name, kRegionSize, true);
    ExpectMappedFileException([&] { MappedFile second(name, kRegionSize, true); }, "Mapping already exists");
  }
  ExpectMappedFileException([&] { MappedFile region(name, 0, false); }, "Mapping does not exist");
}

KESTRUN_CHILD(WritesRegion) {
  MappedFile region(words[0], 0, false);
  auto view = region.CreateView(0, MappedFile::kWholeSize, true);
  std::memcpy(view->GetData(), "child", 5);
  test::Say("written");
  test::AwaitLine();
  return 0;
}

TEST(MappedFile, RegionOutlivesAProcessThatIsKilled) {
  std::string name = UniqueName();
  auto region = std::make_unique<MappedFile>(name, kRegionSize, true);
  test::Child child = test::Child::Self("WritesRegion", {name});
  ASSERT_EQ(child.ReadLine(), "written");
  child.Kill();
  child.Wait();
  EXPECT_EQ(Bytes(region->CreateView(0, MappedFile::kWholeSize, false), 5), "child");
}

}  // namespace
}  // namespace kestrun
