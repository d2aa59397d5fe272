// A whole build where the system gives less than usual: it works, if more slowly, or it ends with a cause.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "../dorn_fixture.h"
#include "runtime/base/handle.h"
#include "surroundings.h"

namespace kestrun::test {
namespace {

class Surroundings : public Dorn {
 protected:
  // A build of one job within the surroundings: dorn, its master, and a client.
  RunResult RunBuild(const Words& surroundings, const ChildOptions& more = {}) {
    ChildOptions options = Environment();
    for (const auto& [name, value] : more.environment) options.environment[name] = value;
    return test::Run(
        Within(surroundings, {ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "print", "built", ",", "exit", "7"}),
        options);
  }
  static std::string Refuse(long call, int error) {
    return "refuse:" + std::to_string(call) + "=" + std::to_string(error);
  }
  static void ExpectWorks(const RunResult& result, const char* what) {
    EXPECT_EQ(result.exitCode, 7) << what << ": " << result.errors;
    EXPECT_EQ(result.output, "built\n") << what;
    EXPECT_EQ(result.errors, "") << what;
  }
  // Expects that dorn ended by itself and named the cause: it was not killed by a signal, and did not wait in vain for
  // its master.
  static void ExpectFails(const RunResult& result, const std::string& cause, const std::string& what) {
    EXPECT_NE(result.exitCode, 0) << what;
    EXPECT_FALSE(result.exitCode > 128 && result.exitCode < 160) << what << ": " << result.exitCode;
    EXPECT_EQ(result.errors.find("did not become ready"), std::string::npos) << what;
    EXPECT_NE(result.errors.find(cause), std::string::npos) << what << ": " << result.errors;
  }
  static void ExpectWorksOrFails(const RunResult& result, const std::string& cause, const std::string& what) {
    if (result.exitCode != 7 || result.output != "built\n") ExpectFails(result, cause, what);
  }
};

TEST_F(Surroundings, WithoutNewSystemCallsOrPrioritiesItWorks) {
  for (const int error : {ENOSYS, EPERM}) {
    ExpectWorks(RunBuild({Refuse(SYS_pidfd_open, error), Refuse(SYS_close_range, error),
                          Refuse(449 /* futex_waitv */, error), Refuse(SYS_setpriority, EPERM)}),
                std::to_string(error).c_str());
  }
}

TEST_F(Surroundings, WhereFilesCannotBeLockedItSaysSo) {
  const auto refuse = [](int command) {
    return "refuse:" + std::to_string(SYS_fcntl) + ":" + std::to_string(command) + "=" + std::to_string(EINVAL);
  };
  ExpectFails(RunBuild({refuse(F_OFD_SETLK), refuse(F_OFD_SETLKW)}), "its files cannot be locked: Invalid argument",
              "");
}

TEST_F(Surroundings, AFewOpenFilesAreEnough) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers look at memory through a pipe";
#endif
  ExpectWorks(RunBuild({"files=256"}), "256");
  WriteSettings("IpcTimeout=int:1000\n");
  for (const char* count : {"64", "40", "24"}) {
    ExpectWorksOrFails(RunBuild({std::string("files=") + count}), "failed", count);
  }
  ExpectFails(RunBuild({"files=6"}), "Too many open files", "6");
}

TEST_F(Surroundings, WhereNoProcessCanBeMadeItSaysSo) {
  ExpectFails(RunBuild({"processes=0"}), "failed with error 8", "");
}

TEST_F(Surroundings, WithTooLittleMemoryItSaysSo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need more address space than any limit";
#endif
  for (const char* megabytes : {"600", "300", "200", "100", "60", "30"}) {
    ExpectWorksOrFails(RunBuild({std::string("memory=") + megabytes + "000000"}), "error", megabytes);
  }
}

TEST_F(Surroundings, FilesThatMayNotGrowAreNamedOrDoneWithout) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer writes a file as a program starts";
#endif
  for (const char* bytes : {"0", "1024", "8192", "65536", "200000"}) {
    const RunResult result = RunBuild({std::string("filesize=") + bytes});
    ExpectWorksOrFails(result, "for named objects: File too large", bytes);
    EXPECT_EQ(result.errors.find("another process"), std::string::npos) << result.errors;
  }
}

TEST_F(Surroundings, AFullObjectFolderIsNamed) {
  const std::string folder = folder_.File("tiny");
  std::filesystem::create_directory(folder);
  ChildOptions more;
  more.environment["KESTRUN_OBJECT_DIR"] = folder + "/objects";
  WriteSettings("IpcTimeout=int:1000\n");
  // From a file system in which nothing finds room, over sizes that hold no connection or a single one.
  for (const int kilobytes : {4, 40, 200, 300, 500}) {
    const std::string size = std::to_string(kilobytes * 1024);
    const RunResult result = RunBuild({"mount:" + folder + "=" + size}, more);
    if (result.exitCode == kNotPossible) GTEST_SKIP() << result.errors;
    ExpectWorksOrFails(result, folder + "/objects for named objects: No space left on device", size);
  }
}

TEST_F(Surroundings, AFullObjectTableIsNamed) {
  std::vector<UniqueHandle> events;
  for (;;) {
    UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, UniqueName("e2e_fill").c_str()));
    if (!event) break;
    events.push_back(std::move(event));
  }
  // From no entry that is left for a build to a few.
  for (const std::size_t left : {0u, 1u, 4u, 10u}) {
    events.resize(events.size() - left);
    ExpectWorksOrFails(RunBuild({}), "for named objects: its object table is full, with 8192 objects",
                       std::to_string(left));
  }
}

TEST_F(Surroundings, WithoutProcItSaysSo) {
  const RunResult result = RunBuild({"mount:/proc=4096"});
  if (result.exitCode == kNotPossible) GTEST_SKIP() << result.errors;
  ExpectFails(result, "cannot read /proc/self/exe: No such file or directory", "");
}

TEST_F(Surroundings, TemporaryFolders) {
  ChildOptions more;
  more.environment["TMPDIR"] = "/dev/null";
  ExpectWorks(RunBuild({}, more), "no temporary folder");
  more.environment["TMPDIR"] = folder_.File("");
  more.environment["KESTRUN_OBJECT_DIR"] = std::nullopt;
  const RunResult result = RunBuild({"mount:/dev/shm=0"}, more);
  if (result.exitCode == kNotPossible) GTEST_SKIP() << result.errors;
  ExpectWorks(result, "/dev/shm read-only");
  EXPECT_TRUE(std::filesystem::is_directory(folder_.File("kestrun-" + std::to_string(geteuid()))));
  more.environment["TMPDIR"] = "/dev/null";
  ExpectFails(RunBuild({"mount:/dev/shm=0"}, more), "/dev/null/kestrun-", "neither of the two");
}

TEST_F(Surroundings, AFullDiskUnderTheLog) {
  ChildOptions more;
  more.environment["KESTRUN_LOG"] = "/dev/full";
  ExpectWorks(RunBuild({}, more), "/dev/full");
  more.environment["KESTRUN_LOG"] = "/dev/null/log";
  ExpectWorks(RunBuild({}, more), "/dev/null/log");
}

TEST_F(Surroundings, WhatIsNoFileIsNamedAndDoneWithout) {
  ChildOptions more;
  const std::string fifo = folder_.File("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  more.environment["KESTRUN_LOG"] = fifo;
  RunResult result = RunBuild({}, more);
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.output, "built\n");
  EXPECT_NE(result.errors.find("the log is not written, " + fifo + ": it is no regular file\n"), std::string::npos)
      << result.errors;
  const std::string settings = folder_.File("common/DORN/Zelvo.ini");
  std::filesystem::remove(settings);
  ASSERT_EQ(mkfifo(settings.c_str(), 0600), 0);
  result = RunBuild({});
  EXPECT_EQ(result.output, "built\n");
  EXPECT_NE(result.errors.find("Zelvo.ini: it is no regular file\n"), std::string::npos) << result.errors;
}

TEST_F(Surroundings, ALogInAFolderOfAnotherUserIsNotWritten) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  ASSERT_EQ(chown(folder_.File("common/DORN").c_str(), 65531, 65531), 0);
  const RunResult result = RunBuild({});
  EXPECT_EQ(result.output, "built\n");
  EXPECT_NE(result.errors.find("it belongs to another user\n"), std::string::npos) << result.errors;
  EXPECT_FALSE(std::filesystem::exists(folder_.File("common/DORN/Log/")) &&
               !std::filesystem::is_empty(folder_.File("common/DORN/Log")));
}

TEST_F(Surroundings, ATickCountThatWrapsIsNotNoticed) {
  // The wrap comes two seconds from now: the master is up by then, and the first job goes on beyond it.
  const std::string ticks = "ticks=" + std::to_string((1ull << 32) - 2000);
  const std::string kestrun = ProgramPath("kestrun");
  const std::string build = kestrun + " /bin/sleep 3 && " + kestrun + " " + tool_ + " print built , exit 7";
  const RunResult result = test::Run(Within({ticks}, {ProgramPath("dorn"), "/bin/sh", "-c", build}), Environment());
  if (result.exitCode == kNotPossible) GTEST_SKIP() << result.errors;
  ExpectWorks(result, "");
}

}  // namespace
}  // namespace kestrun::test
