#include "runtime/files/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "platform/win32.h"
#include "runtime/base/text.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

std::time_t fakeNow = 0;

// A log in a common path of its own, on a day that the test chooses.
class LogTest : public testing::Test {
 protected:
  LogTest() {
    SetEnvironmentVariableA("RV_COMMON_PATH", folder_.Path().string().c_str());
    SetDay(2026, 3, 9);
    Log::SetDayClock([] { return fakeNow; });
  }
  ~LogTest() override {
    Log::Shutdown();
    Log::SetDayClock(nullptr);
    SetEnvironmentVariableA("RV_COMMON_PATH", nullptr);
  }

  static void SetDay(int year, int month, int day) {
    std::tm noon{};
    noon.tm_year = year - 1900;
    noon.tm_mon = month - 1;
    noon.tm_mday = day;
    noon.tm_hour = 12;
    noon.tm_isdst = -1;
    fakeNow = std::mktime(&noon);
  }
  void Start(bool cleanUp = false) {
    Log::Init("zelvo", cleanUp);
    Log::Get()->SetEnabled(true);
  }
  void Write(const std::string& message) { WriteLog(Log::Info, Log::CLIENT, message); }
  fs::path LogFolder() const { return folder_.Path() / "DORN" / "Log"; }
  std::string Read(const std::string& name) const { return folder_.Read("DORN/Log/" + name); }
  bool Exists(const std::string& name) const { return fs::exists(LogFolder() / name); }
  // A file that holds no bytes on the disk but counts as `size`.
  void MakeOldFile(const std::string& name, i32 size) {
    fs::create_directories(LogFolder());
    const UniqueFile file(CreateFileA((LogFolder() / name).string().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_EQ(SetFilePointer(file.Get(), size, nullptr, FILE_BEGIN), static_cast<DWORD>(size));
    EXPECT_TRUE(SetEndOfFile(file.Get()));
  }

  test::TempFolder folder_;
};

TEST_F(LogTest, ExistsBetweenInitAndShutdownAndIsSilentUntilEnabled) {
  EXPECT_EQ(Log::Get(), nullptr);
  Log::Init("zelvo", false);
  Log* const first = Log::Get();
  ASSERT_NE(first, nullptr);
  Log::Init("other", true);
  Log::InitFile(folder_.File("other.log"));
  EXPECT_EQ(Log::Get(), first) << "a second start changes nothing";
  Write("not enabled");
  EXPECT_FALSE(IsLogOpen());
  EXPECT_FALSE(fs::exists(folder_.Path() / "DORN"));
  first->SetEnabled(true);
  EXPECT_TRUE(IsLogOpen());
  Log::Shutdown();
  EXPECT_FALSE(IsLogOpen());
  Write("no log");
  EXPECT_EQ(Log::Get(), nullptr);
}

TEST_F(LogTest, ARecordIsItsLineTheTimeAndTheFields) {
  Start();
  WriteLog(Log::Info, Log::CLIENT, "Job done", {{"project", "Demo"}, {"exit code", "0"}});
  std::string text = Read("zelvo2026-03-09.log");
  // Digits stand for themselves only in the time.
  const std::size_t time = text.find(" time:") + 6;
  for (std::size_t i = time; i < std::min(time + 23, text.size()); ++i) text[i] = std::isdigit(text[i]) ? '0' : text[i];
  EXPECT_EQ(text,
            "Info: [CLIENT] Job done\r\n time:0000-00-00 00:00:00.000\r\n"
            " project:Demo\r\n exit code:0\r\n");
}

TEST_F(LogTest, WordsOfLevelsAndComponentsAndDebugRecordsNeedTheFlag) {
  Start();
  WriteLog(Log::Debug, Log::STUB, "unseen");
  Log::Get()->SetDebug(true);
  const struct {
    int level;
    int component;
    const char* start;
  } cases[] = {{0, 1, "Debug: [SERVER] m"}, {1, 2, "Info: [CLIENT] m"},   {2, 3, "Warning: [STUB] m"},
               {3, 4, "Error: [EVENTS] m"}, {4, 7, "?: [COMPONENT=7] m"}, {-1, 0, "?: [COMPONENT=0] m"}};
  for (const auto& [level, component, start] : cases) WriteLog(level, component, "m");
  const std::vector<std::string> lines = SplitLines(Read("zelvo2026-03-09.log"), false);
  ASSERT_EQ(lines.size(), 2 * std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(lines[2 * i], cases[i].start);
}

TEST_F(LogTest, TheFirstRecordOfANewDayGoesToANewFile) {
  Start();
  Write("first day");
  SetDay(2026, 3, 10);
  Write("second day");
  EXPECT_NE(Read("zelvo2026-03-09.log").find("first day"), std::string::npos);
  EXPECT_EQ(Read("zelvo2026-03-10.log").find("Info: [CLIENT] second day"), 0u);
}

TEST_F(LogTest, CleaningUpDeletesTheOldestFileAsLongAsThereAreOthers) {
  MakeOldFile("zelvo2026-03-01.log", 0x1400000);
  MakeOldFile("zelvo2026-03-02.log", 0x1400001);
  MakeOldFile("other2026-03-01.log", 1);
  Start(false);
  Write("zero");
  EXPECT_TRUE(Exists("zelvo2026-03-01.log"));
  Log::Shutdown();
  Start(true);
  Write("one");
  EXPECT_FALSE(Exists("zelvo2026-03-01.log"));
  EXPECT_TRUE(Exists("zelvo2026-03-02.log")) << "one file a record";
  Write("two");
  EXPECT_FALSE(Exists("zelvo2026-03-02.log"));
  EXPECT_TRUE(Exists("other2026-03-01.log"));
  EXPECT_NE(Read("zelvo2026-03-09.log").find("two"), std::string::npos);
}

TEST_F(LogTest, ASingleFileHasALowerCaseNameAndNoDays) {
  const std::string leaf = test::UniqueName("Kestrun_My") + ".Log";
  Log::InitFile(folder_.File("sub/" + leaf));
  Log::Get()->SetEnabled(true);
  const std::string mutexName = "Global\\" + Path(ToLower(leaf)).GetBaseName();
  const auto hasMutex = [&] { return UniqueHandle(OpenMutexA(SYNCHRONIZE, FALSE, mutexName.c_str())).IsValid(); };
  EXPECT_FALSE(hasMutex()) << "only a record needs it";
  Write("one");
  EXPECT_TRUE(hasMutex());
  SetDay(2026, 3, 10);
  Write("two");
  EXPECT_FALSE(fs::exists(folder_.Path() / "DORN"));
  Log::Shutdown();
  const std::string text = folder_.Read("sub/" + ToLower(leaf));
  EXPECT_NE(text.find("one"), std::string::npos);
  EXPECT_NE(text.find("two"), std::string::npos);
}

KESTRUN_CHILD(HoldsTheLogMutex) {
  Mutex mutex(words.at(0).c_str());
  mutex.Lock(kNoLimit);
  test::Say("held");
  test::AwaitLine();
  return 0;
}

TEST_F(LogTest, WhileAnotherProcessHoldsTheMutexRecordsAreLost) {
  const std::string name = test::UniqueName("kestrun_log");
  Log::InitFile(folder_.File(name + ".log"));
  Log::Get()->SetEnabled(true);
  test::Child holder = test::Child::Self("HoldsTheLogMutex", {"Global\\" + name});
  ASSERT_EQ(holder.ReadLine(), "held");
  Write("lost");
  holder.Kill();
  holder.Wait();
  Write("kept");
  const std::string text = folder_.Read(name + ".log");
  EXPECT_EQ(text.find("Info: [CLIENT] kept"), 0u) << text;
}

TEST(LogTime, IsPaddedAndCountsFromTheYear1601) {
  SYSTEMTIME time{};
  time.wYear = 2026;
  time.wMonth = 3;
  time.wDay = 9;
  time.wHour = 4;
  time.wMilliseconds = 27;
  EXPECT_EQ(Log::FormatTime(time), "2026-03-09 04:00:00.027");
  EXPECT_EQ(Log::FormatTime(u64{0}), "1601-01-01 00:00:00.000");
  EXPECT_EQ(Log::FormatTime(u64{11644473600000 + 86400000 + 1}), "1970-01-02 00:00:00.001");
}

}  // namespace
}  // namespace kestrun
