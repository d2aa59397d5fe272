#include "runtime/process/process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "platform/win32.h"
#include "runtime/files/memory_stream.h"
#include "runtime/process/process_list.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun {
namespace {

std::string Quoted(const std::string& word) {
  return "\"" + word + "\"";
}

// The command line that runs test_tool with these words.
std::string Tool(const test::Words& words) {
  std::string line = Quoted(test::ProgramPath("test_tool"));
  for (const std::string& word : words) line += " " + Quoted(word);
  return line;
}

std::string TextOf(const rc_ptr<MemoryStream>& stream) {
  return std::string(stream->GetData(), stream->GetData() + stream->GetSize());
}

// A named event that children signal and wait for.
class NamedEvent {
 public:
  NamedEvent() : handle_(CreateEventA(nullptr, TRUE, FALSE, name_.c_str())) {}
  const std::string& Name() const { return name_; }
  void Set() { SetEvent(handle_.Get()); }
  bool Await() { return WaitForSingleObject(handle_.Get(), INFINITE) == WAIT_OBJECT_0; }

 private:
  std::string name_ = test::UniqueName("kestrun_process_event");
  UniqueHandle handle_;
};

class ProcessTest : public testing::Test {
 protected:
  int Run(const test::Words& words, u32 flags = Process::OWN_JOB) {
    return process_->Run(Tool(words), out_.Get(), err_.Get(), flags, nullptr, 0, false);
  }
  void RunInBackground(const test::Words& words) {
    ASSERT_EQ(process_->Run(Tool(words), out_.Get(), err_.Get(), Process::OWN_JOB, nullptr, 0, true), 0);
  }

  rc_ptr<Process> process_ = new Process("");
  rc_ptr<MemoryStream> out_ = new MemoryStream;
  rc_ptr<MemoryStream> err_ = new MemoryStream;
};

// Stops the starting thread after the child was created and before anything else is done to the child.
class HeldBehindCreation : public Process {
 public:
  HeldBehindCreation() : Process("") {}

 protected:
  BOOL CreateChild(LPCSTR applicationName, LPSTR commandLine, SECURITY_ATTRIBUTES* processAttributes,
                   SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles, DWORD creationFlags, LPVOID environment,
                   LPCSTR currentDirectory, STARTUPINFOA* startupInfo,
                   PROCESS_INFORMATION* processInformation) override {
    const BOOL isCreated =
        Process::CreateChild(applicationName, commandLine, processAttributes, threadAttributes, inheritHandles,
                             creationFlags, environment, currentDirectory, startupInfo, processInformation);
    test::Say(std::to_string(processInformation->dwProcessId));
    test::AwaitLine();
    return isCreated;
  }
};

// Words: the flags, and those of the tool.
KESTRUN_CHILD(StandsBehindCreation) {
  const u32 flags = static_cast<u32>(std::stoul(words[0]));
  const rc_ptr<Process> process = new HeldBehindCreation;
  return process->Start(Tool({words.begin() + 1, words.end()}), flags, nullptr, 0) ? 0 : 1;
}

TEST(SuddenDeath, AChildThatIsNotYetRunningEndsWithItsParent) {
  test::Child parent = test::Child::Self("StandsBehindCreation", {std::to_string(Process::OWN_JOB), "hold"});
  const unsigned long child = std::stoul(parent.ReadLine());
  EXPECT_TRUE(test::ProcessExists(child));
  parent.Kill();
  EXPECT_TRUE(test::ProcessEndsWithin(child, 10000));
}

// A child without a job is meant to outlive its parent, so it must not need the parent in order to run.
TEST(SuddenDeath, AChildWithoutAJobRunsFromItsCreationOn) {
  test::Child parent = test::Child::Self("StandsBehindCreation", {std::to_string(Process::BREAKAWAY), "exit", "0"});
  EXPECT_TRUE(test::ProcessEndsWithin(std::stoul(parent.ReadLine()), 10000));
  parent.Kill();
}

TEST_F(ProcessTest, ADescendantThatKeepsThePipesDoesNotHoldUpRun) {
  EXPECT_EQ(Run({"background", "plain", "hold", "then", "fill", "3000000", "0", ",", "exit", "3"}), 3);
  const std::string text = TextOf(out_);
  const unsigned long descendant = std::stoul(text);
  EXPECT_EQ(text.size(), std::to_string(descendant).size() + 1 + 3000000);
  EXPECT_TRUE(test::ProcessExists(descendant));
  process_.Reset();
  EXPECT_TRUE(test::ProcessEndsWithin(descendant, 10000)) << "the end of its job ends it";
}

// Without the limit the tool would write for many seconds.
TEST_F(ProcessTest, AChildThatNeverStopsWritingCanRunOutOfTime) {
  const rc_ptr<Process> process = new Process("");
  ASSERT_TRUE(process->Start("\"" + test::ProgramPath("test_tool") + "\" fill 4000000000 0",
                             Process::PIPE_STDOUT | Process::PIPE_STDERR | Process::OWN_JOB, nullptr, 0));
  EXPECT_FALSE(process->Collect(nullptr, nullptr, 100, nullptr));
  EXPECT_TRUE(process->Terminate());
}

TEST_F(ProcessTest, OutputWithoutADestinationIsDropped) {
  EXPECT_EQ(process_->Run(Tool({"fill", "300000", "300000"}), nullptr, nullptr, 0, nullptr, 0, false), 0);
}

TEST_F(ProcessTest, AFailingDestinationDoesNotStallTheChild) {
  char memory[4];
  const rc_ptr<MemoryStream> readOnly = new MemoryStream(memory, sizeof memory, true);
  EXPECT_EQ(
      process_->Run(Tool({"fill", "300000", "0", ",", "exit", "5"}), readOnly.Get(), err_.Get(), 0, nullptr, 0, false),
      5);
}

TEST_F(ProcessTest, ACommandThatCannotStartIsReported) {
  const std::string missing = test::UniqueName("no_such_program");
  testing::internal::CaptureStderr();
  EXPECT_EQ(process_->Run(missing, out_.Get(), err_.Get(), 0, nullptr, 0, false), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "CreateProcess(" + missing + ") failed with error 2\n");
  EXPECT_EQ(process_->GetExitCode(), 2u);
  EXPECT_FALSE(process_->Wait(0, nullptr));
}

TEST_F(ProcessTest, TerminateEndsTheWholeJob) {
  const test::TempFolder folder;
  NamedEvent started;
  RunInBackground(
      {"background", "plain", "note", folder.File("id"), ",", "signal", started.Name(), ",", "hold", "then", "hold"});
  ASSERT_TRUE(started.Await());
  const unsigned long descendant = std::stoul(folder.Read("id"));
  EXPECT_TRUE(process_->Terminate());
  EXPECT_EQ(process_->GetExitCode(), 0xFFFFFFFFu);
  EXPECT_TRUE(test::ProcessEndsWithin(descendant, 10000));
  EXPECT_FALSE(process_->Wait(0, nullptr));
  EXPECT_FALSE(process_->Terminate());
}

TEST_F(ProcessTest, WaitGivesTheCodeAsOftenAsItIsAsked) {
  NamedEvent go;
  RunInBackground({"await", go.Name(), ",", "print", "gone", ",", "exit", "9"});
  u32 code = 77;
  EXPECT_FALSE(process_->Wait(0, &code));
  EXPECT_EQ(code, 77u);
  go.Set();
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(process_->Wait(kNoLimit, &code));
    EXPECT_EQ(code, 9u);
  }
  EXPECT_EQ(TextOf(out_), "gone\n");
}

// In a process group of its own, where an event that goes astray meets no other process.
KESTRUN_CHILD(SendsAnEventWithoutAChild) {
  return rc_ptr<Process>(new Process(""))->SendCtrlEvent(1) ? 1 : 0;
}

TEST_F(ProcessTest, WithoutAChildThereIsNothingToWaitForOrEnd) {
  EXPECT_FALSE(process_->Wait(kNoLimit, nullptr));
  EXPECT_FALSE(process_->Terminate());
  EXPECT_EQ(process_->GetExitCode(), 0xFFFFFFFFu);
  EXPECT_EQ(process_->GetCpuTime(), 0u);
  EXPECT_FALSE(process_->SendCtrlEvent(2));
  test::ChildOptions options;
  options.ownGroup = true;
  EXPECT_EQ(test::Child::Self("SendsAnEventWithoutAChild", {}, options).Wait(), 0);
}

// A pipe's write end that leaks into another thread's long-lived child would keep its reader from ever ending.
TEST(ProcessThreads, ChildrenStartedAtOnceDoNotHoldEachOthersPipes) {
  constexpr int kThreads = 8;
  std::atomic<int> complete{0};
  std::vector<rc_ptr<Process>> holders(kThreads);
  std::vector<std::thread> threads;
  for (rc_ptr<Process>& holder : holders) {
    threads.emplace_back([&] {
      const rc_ptr<Process> printer = new Process("");
      holder = new Process("");
      if (!printer->Start(Tool({"print", "x"}), Process::PIPE_STDOUT, nullptr, 0)) return;
      if (!holder->Start(Tool({"hold"}), Process::PIPE_STDOUT | Process::OWN_JOB, nullptr, 0)) return;
      std::string text;
      try {
        for (char c;;) text.append(&c, printer->GetStdout()->Read(&c, 1));
      } catch (const StreamException&) {
      }
      if (text == "x\n") ++complete;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(complete, kThreads);
}

TEST(ProcessList, FindsThisProcessByItsName) {
  const std::string leaf = std::filesystem::path(test::ProgramPath("")).filename().string();
  const std::string base = std::filesystem::path(leaf).stem().string();
  EXPECT_GE(CountProcesses(leaf), 1);
  EXPECT_GE(CountProcesses(base), 1);
  EXPECT_GE(CountProcesses(base + ".exe"), 1);
  EXPECT_TRUE(FindProcess(base));
  EXPECT_EQ(CountProcesses(test::UniqueName("nobody")), 0);
  EXPECT_FALSE(FindProcess(test::UniqueName("nobody")));
}

}  // namespace
}  // namespace kestrun
