// Child processes for tests, made with the system's own calls and not with the layer under test.
//
// A test that needs a second process either starts a program, or re-runs its own test program as a named child:
//
//   KESTRUN_CHILD(HoldsEvent) {          // runs in the other process, with the words that the test gave
//     ...
//     Say("ready");                      // one line on its standard output
//     AwaitLine();                       // until the test calls Tell
//     return 0;                          // the child's exit code
//   }
//   TEST(Events, ...) {
//     Child child = Child::Self("HoldsEvent", {name});
//     ASSERT_EQ(child.ReadLine(), "ready");
//     child.Kill();
//   }
#ifndef KESTRUN_TESTS_SUPPORT_CHILD_H_
#define KESTRUN_TESTS_SUPPORT_CHILD_H_

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrun::test {

using Words = std::vector<std::string>;

struct ChildOptions {
  // Set on top of this process's environment; an empty optional removes the variable.
  std::map<std::string, std::optional<std::string>> environment;
  std::string workingDirectory;
  // Start the child as the leader of a process group of its own, so that Interrupt reaches it and what it started.
  bool ownGroup = false;
  // What is written to its standard input, which then ends. Without it the input stays open for Tell.
  std::optional<std::string> input;
  // Do not collect the output: it goes where this process's own goes.
  bool inheritOutput = false;
};

// A running child. Its output is collected by two threads from the start, so it never stalls on a full pipe.
// A child that is still running when the object goes is killed.
class Child {
 public:
  struct State;  // of the running process, in child_state.h

  static Child Start(const Words& commandLine, const ChildOptions& options = {});
  static Child Self(const std::string& name, const Words& words = {}, const ChildOptions& options = {});

  Child(Child&&) noexcept;
  Child& operator=(Child&&) noexcept;
  ~Child();

  unsigned long Pid() const;
  // The next line of the standard output, without its line end; waits for it. Empty at the end of the output.
  std::string ReadLine();
  void Tell(const std::string& line);
  void CloseInput();
  // Ends the child at once, with no chance to clean up (SIGKILL, TerminateProcess).
  void Kill();
  // Ctrl-C (Linux) or Ctrl-Break (Windows) to the child, or to its group if it leads one.
  void Interrupt();
  // Waits for the end. The exit code; a death by signal n is 128 + n. Fails the test and kills the child if it is
  // not over after LIMITMS.
  int Wait(unsigned limitMs = 60000);
  // True once the child has ended, within LIMITMS.
  bool EndsWithin(unsigned limitMs);
  // All that the child wrote. Complete once Wait has returned, unless a descendant still holds the pipe.
  std::string Output() const;
  std::string Errors() const;

 private:
  explicit Child(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

struct RunResult {
  int exitCode = -1;
  std::string output;
  std::string errors;
};

// Runs a program to its end.
RunResult Run(const Words& commandLine, const ChildOptions& options = {}, unsigned limitMs = 60000);

unsigned long CurrentProcessId();
// False once the process has ended (a zombie has ended).
bool ProcessExists(unsigned long pid);
// Waits until the process has ended; false if it is still there after LIMITMS.
bool ProcessEndsWithin(unsigned long pid, unsigned limitMs);
// True under Wine, where on a busy machine about one start of a process in some thousands fails (error 1359), also
// without the program under test.
bool RefusesProcesses();
// The full name of a program of this build: beside the test program, with ".exe" where the system wants it.
std::string ProgramPath(const std::string& name);

// In a child: one line to the test, and one line from it (empty at the end of the input).
void Say(const std::string& line);
std::string AwaitLine();

using ChildBody = int (*)(const Words& words);
struct ChildRegistration {
  ChildRegistration(const char* name, ChildBody body);
};

}  // namespace kestrun::test

#define KESTRUN_CHILD(name)                                                                        \
  static int KestrunChild_##name(const ::kestrun::test::Words& words);                             \
  static const ::kestrun::test::ChildRegistration kRegistered_##name(#name, &KestrunChild_##name); \
  static int KestrunChild_##name([[maybe_unused]] const ::kestrun::test::Words& words)

#endif  // KESTRUN_TESTS_SUPPORT_CHILD_H_
