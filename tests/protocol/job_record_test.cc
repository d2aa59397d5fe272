#include "protocol/job_record.h"

#include <gtest/gtest.h>

#include "protocol/job_label.h"

namespace kestrun {
namespace {

JobRecord Sample() {
  JobRecord record;
  record.number = 7;
  record.parent = 3;
  record.clientProcess = 4711;
  record.rootProcess = 12;
  record.queuedUs = 1;
  record.startedUs = 2;
  record.endedUs = 3;
  record.slot = 5;
  record.outcome = JobOutcome::kSignalled;
  record.hasExitCode = true;
  record.exitCode = -2;
  record.signal = 9;
  record.cpuUs = 10;
  record.peakMemoryBytes = 11;
  record.outputBytes = 12;
  record.text = {"p", "n", "gcc", std::string("a\0b\xFF", 4), "/f"};
  record.outputHead = "head";
  return record;
}

TEST(JobRecordTest, ComesBackAsItWas) {
  std::string bytes;
  EncodeRecord(Sample(), bytes);
  EncodeRecord(JobRecord(), bytes);
  std::vector<JobRecord> records;
  ASSERT_TRUE(DecodeRecords(bytes, records));
  ASSERT_EQ(records.size(), 2u);
  const JobRecord& back = records[0];
  EXPECT_EQ(std::tie(back.number, back.parent, back.clientProcess, back.rootProcess, back.slot, back.outcome),
            std::make_tuple(7u, 3u, 4711u, 12u, 5, JobOutcome::kSignalled));
  EXPECT_EQ(std::tie(back.queuedUs, back.startedUs, back.endedUs, back.cpuUs, back.peakMemoryBytes, back.outputBytes),
            std::make_tuple(1, 2, 3, 10, 11, 12));
  EXPECT_EQ(std::tie(back.hasExitCode, back.exitCode, back.signal), std::make_tuple(true, -2, 9));
  EXPECT_EQ(std::tie(back.text.project, back.text.name, back.text.tool, back.text.folder, back.outputHead),
            std::make_tuple("p", "n", "gcc", "/f", "head"));
  EXPECT_EQ(back.text.command, std::string("a\0b\xFF", 4));
  EXPECT_EQ(records[1].endedUs, JobRecord::kNone);
}

TEST(JobRecordTest, RefusesWhatIsCutOffAnywhere) {
  std::string bytes;
  EncodeRecord(Sample(), bytes);
  for (std::size_t size = 1; size < bytes.size(); ++size) {
    std::vector<JobRecord> records;
    EXPECT_FALSE(DecodeRecords(std::string_view(bytes).substr(0, size), records)) << size;
    EXPECT_TRUE(records.empty());
  }
  JournalState state;
  EXPECT_FALSE(DecodeState(EncodeState(state) + "x", state));
  EXPECT_TRUE(DecodeState(EncodeState(state), state));
}

TEST(JobLabelTest, NamesAJobByItsNameOrByToolAndFile) {
  const auto label = [](const char* name, const char* tool, const char* command) {
    return GetLabel({"", name, tool, command, ""});
  };
  EXPECT_EQ(label("mine", "gcc", "gcc -c a.c"), "mine");
  EXPECT_EQ(label("", "gcc", "gcc -c -o out/a.o 'my dir/a.c' -I x"), "gcc a.c");
  EXPECT_EQ(label("", "/usr/bin/g++", "g++ a.o b.o -o bin/prog -lm"), "g++ prog");
  EXPECT_EQ(label("", "c++", "c++ -MD -MT a.cc.o -MF a.cc.o.d -o a.d -include pre.c -c a.cc"), "c++ a.cc");
  EXPECT_EQ(label("", "ar", "ar rcs libx.a"), "ar libx.a");
  EXPECT_EQ(label("", "C:\\t\\cl.exe", "\"C:\\t\\cl.exe\" /c C:\\s\\A.CPP"), "cl.exe A.CPP");
  EXPECT_EQ(label("", "true", "true"), "true");
  EXPECT_EQ(label("", "", ""), "");
}

TEST(JobLabelTest, FitsALineIntoColumnsAndHasNoControlCharacters) {
  EXPECT_EQ(FitLine("abc\x1b[31m\n", 20), "abc?[31m?");
  EXPECT_EQ(FitLine("abcdef", 6), "abcdef");
  EXPECT_EQ(FitLine("abcdefg", 6), "abc...");
  EXPECT_EQ(FitLine("\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xC3\xA4", 4), "\xC3\xA4...");
  EXPECT_EQ(FitLine("abcdef", 2), "..");
  EXPECT_EQ(FitLine("abcdef", 0), "");
}

}  // namespace
}  // namespace kestrun
