// A build for end-to-end tests: real masters and real clients, apart from every other build of the machine.
//
// Settings, log and (where the system allows it) named objects live in a folder of the test's own. Masters that are
// still running when the test ends are killed.
#ifndef KESTRUN_TESTS_END_TO_END_BUILD_FIXTURE_H_
#define KESTRUN_TESTS_END_TO_END_BUILD_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {

// A named event, closed with the object.
class NamedEvent {
 public:
  explicit NamedEvent(bool manualReset = false, const std::string& name = UniqueName("e2e_event"));
  ~NamedEvent();
  NamedEvent(const NamedEvent&) = delete;
  NamedEvent& operator=(const NamedEvent&) = delete;

  const std::string& Name() const { return name_; }
  void Signal() { SetEvent(handle_); }
  void Reset() { ResetEvent(handle_); }
  bool Wait(unsigned limitMs) { return WaitForSingleObject(handle_, limitMs) == WAIT_OBJECT_0; }
  HANDLE Handle() const { return handle_; }

 private:
  std::string name_;
  HANDLE handle_;
};

class Build : public testing::Test {
 protected:
  Build();
  ~Build() override;

  // The lines of [LocalSettings] for programs that start from now on; the log is on unless they say otherwise.
  void WriteSettings(const std::string& lines);
  // Starts a master and waits until it is ready. Fails the test if it ends before.
  void StartMaster(const Words& moreOptions = {});
  void SignalStop() { stop_.Signal(); }
  // Signals the stop event and gives the master's exit code.
  int StopMaster();
  Child& Master() { return *master_; }
  NamedEvent& FinishEvent() { return finish_; }

  // kestrun with this build's environment.
  Child StartKestrun(const Words& words, ChildOptions options = {});
  RunResult Kestrun(const Words& words, ChildOptions options = {}, unsigned limitMs = 60000);
  // kestrun with test_tool as its tool.
  RunResult Tool(const Words& toolWords, ChildOptions options = {});
  Child StartTool(const Words& toolWords, ChildOptions options = {});
  // kestrun -s with a script of this text; $TOOL in it becomes the test tool.
  RunResult Script(std::string text, const Words& options = {}, unsigned limitMs = 60000);
  std::string WriteScript(std::string text);

  ChildOptions WithEnvironment(ChildOptions options) const;
  // All that this build's processes have logged.
  std::string LogText() const;
  // How often TEXT occurs in the log.
  int LogCount(const std::string& text) const;

  TempFolder folder_;
  std::string id_ = UniqueName("e2e");
  const std::string tool_ = ProgramPath("test_tool");

 private:
  NamedEvent ready_{true};
  NamedEvent stop_;
  NamedEvent finish_;
  std::unique_ptr<Child> master_;
};

// A text's words, which are between blanks.
Words SplitWords(const std::string& text);

// What the caller of a process sees of an exit code: all of it on Windows, its low byte elsewhere.
inline int Seen(int code) {
  return Run({ProgramPath("test_tool"), "exit", std::to_string(code)}).exitCode;
}

// A number that can be set from outside: that in the environment variable, or the other one.
unsigned ReadNumber(const char* variable, unsigned otherwise);
// How many of something a test is to have that usually has so many. KESTRUN_TEST_SCALE is the percentage for systems on
// which everything takes longer.
unsigned Scaled(unsigned count);

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_BUILD_FIXTURE_H_
