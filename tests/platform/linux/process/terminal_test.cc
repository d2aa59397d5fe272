// A tool that has our standard input can use the terminal as if it had been started without us.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "../../tool_process.h"
#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

// Runs a child of this test program as the leader of a session on a new terminal.
class Terminal {
 public:
  explicit Terminal(const char* child) {
    main_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    grantpt(main_);
    unlockpt(main_);
    const std::string name = ptsname(main_);
    const std::string program = ProgramPath("");
    const std::string argument = std::string("--kestrun-child=") + child;
    pid_ = fork();
    if (pid_ != 0) return;
    setsid();
    const int side = open(name.c_str(), O_RDWR);
    ioctl(side, TIOCSCTTY, 0);
    for (int i = 0; i < 3; ++i) dup2(side, i);
    execl(program.c_str(), program.c_str(), argument.c_str(), nullptr);
    _exit(126);
  }
  ~Terminal() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(main_);
  }

  void Type(const std::string& keys) { EXPECT_EQ(write(main_, keys.data(), keys.size()), std::ssize(keys)); }

  // True once TEXT has been shown.
  bool Shows(const std::string& text) {
    char block[256];
    while (shown_.find(text) == std::string::npos) {
      pollfd wait{main_, POLLIN, 0};
      const ssize_t count = poll(&wait, 1, 30000) > 0 ? read(main_, block, sizeof block) : 0;
      if (count <= 0) return false;
      shown_.append(block, static_cast<std::size_t>(count));
    }
    return true;
  }

 private:
  int main_ = -1;
  pid_t pid_ = -1;
  std::string shown_;
};

BOOL IgnoreEvent(DWORD) {
  return TRUE;
}

// In a job, as a stub runs its tool when there is no master.
KESTRUN_CHILD(RunsAToolOnItsTerminal) {
  SetConsoleCtrlHandler(&IgnoreEvent, TRUE);
  std::string line =
      "/bin/sh -c \"trap 'echo interrupted; exit 7' INT; echo ready; read word; echo got-$word; "
      "read word\"";
  STARTUPINFOA startup = {};
  PROCESS_INFORMATION information = {};
  const ScopedHandle job = MakeJob();
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr, &startup,
                      &information)) {
    return 1;
  }
  AssignProcessToJobObject(job, information.hProcess);
  ResumeThread(information.hThread);
  WaitForSingleObject(information.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(information.hProcess, &code);
  Say("exit code " + std::to_string(code));
  AwaitLine();
  return 0;
}

TEST(Terminal, IsReadByTheToolAndItsCtrlCReachesIt) {
  Terminal terminal("RunsAToolOnItsTerminal");
  ASSERT_TRUE(terminal.Shows("ready"));
  terminal.Type("word\n");
  ASSERT_TRUE(terminal.Shows("got-word"));
  terminal.Type("\x03");
  EXPECT_TRUE(terminal.Shows("interrupted"));
  EXPECT_TRUE(terminal.Shows("exit code 7"));
}

}  // namespace
}  // namespace kestrun::test
