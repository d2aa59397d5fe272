#include "dorn/settings_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "runtime/files/ini_file.h"
#include "support/names.h"

namespace kestrun::dorn {
namespace {

SettingsFile Parsed(const std::string& text) {
  SettingsFile file;
  file.Parse(text);
  return file;
}

// The settings that dorn regards as read must be those that IniFile reads, whatever the faults of the file; `line` is
// the line of the fault, 0 for none.
TEST(SettingsFile, ReadsTheLinesThatProgramsRead) {
  const struct {
    std::string text;
    std::size_t line;
  } cases[] = {
      {"# top\n; b=1\n[A]\na=int:1\nb=int:2\n\n[B]\na=int:3\n", 0},
      {"[A]\r\na=int:1\r\n[B]\r\na=int:3", 0},
      {"[A]\na=int:1\n# comment\nb=int:2\n\n[B]\na=int:3\n", 3},
      {"[B]\na=int:3\n\n[A]\na=int:1\nno setting\n", 6},
      {"[A]\na=int:1\n\nb=int:2\n[B]\na=int:3\n", 4},
      {"[A]\na=int:1\na=int:9\n[B]\n", 3},
      {"[A]\na=int:1\n[A]\nb=int:2\n", 3},
      {"[A] \na=int:1\n[B]\na=int:3\n", 1},
      {" [A]\n[A]\nb=int:2\n#c=int:1\n", 0},
  };
  const test::TempFolder folder;
  for (const auto& [text, line] : cases) {
    IniFile read;
    read.Load(Path(folder.Write("x.ini", text)));
    const SettingsFile file = Parsed(text);
    for (const char* name : {"A/a", "A/b", "B/a"}) {
      const std::string section(name, 1);
      EXPECT_EQ(file.Find(section, name + 2) != nullptr, read.GetType(name) != IniValue::kNone) << name << "\n" << text;
      if (const auto* setting = file.Find(section, name + 2)) {
        EXPECT_EQ(setting->value, "int:" + std::to_string(read.GetInt(name, 0)));
      }
    }
    EXPECT_EQ(file.GetFaults().empty(), line == 0) << text;
    if (!file.GetFaults().empty()) {
      EXPECT_EQ(file.GetFaults()[0].line, line) << text;
    }
  }
}

TEST(SettingsFile, AddsALineWhereItsSectionIsRead) {
  SettingsFile file = Parsed("# mine\n[A]\na=int:1\n\nstray\n[B]\nb=bool:true");
  file.Add("A", "n", "int:2");
  file.Add("B", "n", "int:3");
  file.Add("C", "n", "int:4");
  EXPECT_EQ(
      file.GetText(),
      "# mine\r\n[A]\r\na=int:1\r\nn=int:2\r\n\r\nstray\r\n[B]\r\nb=bool:true\r\nn=int:3\r\n\r\n[C]\r\nn=int:4\r\n");
  for (const char* section : {"A", "B", "C"}) EXPECT_NE(file.Find(section, "n"), nullptr) << section;
}

TEST(SettingsFile, IsWrittenWholeOrNotAtAll) {
  const test::TempFolder folder;
  const auto countFiles = [&] {
    return std::distance(std::filesystem::directory_iterator(folder.Path()), std::filesystem::directory_iterator());
  };
  const Path file(folder.File("x.ini"));
  EXPECT_TRUE(WriteWholeFile(file, "one", true));
  EXPECT_FALSE(WriteWholeFile(file, "two", true));
  EXPECT_EQ(folder.Read("x.ini"), "one");
  EXPECT_TRUE(WriteWholeFile(file, "three", false));
  EXPECT_EQ(folder.Read("x.ini"), "three");
  std::filesystem::create_directory(folder.Path() / "taken");
  EXPECT_FALSE(WriteWholeFile(Path(folder.File("taken")), "text", false));
  EXPECT_EQ(countFiles(), 2);
}

}  // namespace
}  // namespace kestrun::dorn
