#include "runtime/process/crash_handler.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

// The page around address 0 is never mapped; 0 itself is left to the sanitizers, which answer for it.
void TouchUnmappedMemory() {
  volatile std::uintptr_t address = 64;
  *reinterpret_cast<volatile int*>(address) = 1;
}

// Dies in the way that the second word says, with other threads around it.
KESTRUN_CHILD(Crashes) {
  InstallCrashHandler(words.at(0).c_str(), "zelvo-", false);
  std::promise<void> started;
  // Past its start, in which it holds locks of the run-time library that a dump needs as well.
  std::thread([&started] {
    started.set_value();
    std::this_thread::sleep_for(std::chrono::hours(1));
  }).detach();
  started.get_future().wait();
  std::fputs("last words", stdout);  // still in the buffer when the crash comes
  if (words.at(1) == "exception") throw std::runtime_error("nobody catches this");
  TouchUnmappedMemory();
  return 0;
}

class CrashHandler : public testing::TestWithParam<const char*> {};

TEST_P(CrashHandler, LeavesADumpAndALineAndTheCode) {
  const test::TempFolder folder;
  const std::string directory = folder.Path().string() + "/";
  const test::RunResult result = test::Run({test::ProgramPath(""), "--kestrun-child=Crashes", directory, GetParam()});
  EXPECT_EQ(result.exitCode & 0xFF, 0xFF);
  EXPECT_EQ(result.output, "last words");
  const std::string dump = directory + "zelvo-0.0.0.0.dmp";
  EXPECT_NE(result.errors.find("Internal Exception: dump file written to " + dump), std::string::npos) << result.errors;
  const std::string bytes = folder.Read("zelvo-0.0.0.0.dmp");
  EXPECT_GT(bytes.size(), 1000u);
  // A minidump where the system writes those, an ELF core elsewhere.
  const bool isCore = bytes.substr(0, 4) ==
                      "\x7f"
                      "ELF";
  EXPECT_TRUE(isCore || bytes.substr(0, 4) == "MDMP");
}

TEST(CrashHandlerBesideOlderDumps, KeepsThem) {
  const test::TempFolder folder;
  folder.Write("zelvo-0.0.0.0.dmp", "first");
  folder.Write("zelvo-0.0.0.0-2.dmp", "second");
  const test::Words command{test::ProgramPath(""), "--kestrun-child=Crashes", folder.Path().string() + "/", "access"};
  EXPECT_NE(test::Run(command).errors.find("zelvo-0.0.0.0-3.dmp\n"), std::string::npos);
  EXPECT_EQ(folder.Read("zelvo-0.0.0.0.dmp"), "first");
  EXPECT_EQ(folder.Read("zelvo-0.0.0.0-2.dmp"), "second");
  for (const char* name : {"zelvo-0.0.0.0-4.dmp", "zelvo-0.0.0.0-5.dmp"}) folder.Write(name, "x");
  EXPECT_NE(test::Run(command).errors.find("there are enough"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Ways, CrashHandler, testing::Values("access", "exception"));

// A thread that is stopped in the middle of its output holds the stream's lock.
KESTRUN_CHILD(CrashesBesideAWriter) {
  InstallCrashHandler(words.at(0).c_str(), "zelvo-", false);
  std::thread([] {
    for (;;) std::fputs("chatter ", stderr);
  }).detach();
  test::Say("go");
  test::AwaitLine();
  TouchUnmappedMemory();
  return 0;
}

TEST(CrashHandlerBesideAWriter, ComesToItsEnd) {
  const test::TempFolder folder;
  test::Child child = test::Child::Self("CrashesBesideAWriter", {folder.Path().string() + "/"});
  ASSERT_EQ(child.ReadLine(), "go");
  child.Tell("crash");
  EXPECT_EQ(child.Wait() & 0xFF, 0xFF);
  EXPECT_GT(folder.Read("zelvo-0.0.0.0.dmp").size(), 1000u);
}

TEST(CrashHandlerWithoutFolder, WritesNothingAndStillGivesTheCode) {
  const test::TempFolder folder;
  const test::RunResult result =
      test::Run({test::ProgramPath(""), "--kestrun-child=Crashes", folder.File("missing") + "/", "access"});
  EXPECT_EQ(result.exitCode & 0xFF, 0xFF);
  EXPECT_EQ(result.errors.find("dump file"), std::string::npos) << result.errors;
  EXPECT_TRUE(fs::is_empty(folder.Path()));
}

}  // namespace
}  // namespace kestrun
