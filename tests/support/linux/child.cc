#include "support/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "platform/linux/helper/spawn_settings.h"
#include "support/becomes_true.h"
#include "support/child_state.h"

namespace kestrun::test {
namespace {

using Clock = std::chrono::steady_clock;

void Collect(int descriptor, std::shared_ptr<ChildOutput> output) {
  char block[65536];
  ssize_t count = 0;
  while ((count = read(descriptor, block, sizeof block)) > 0 || (count < 0 && errno == EINTR)) {
    if (count > 0) output->Append(block, static_cast<std::size_t>(count));
  }
  output->End();
  close(descriptor);
}

struct Pipe {
  int read = -1;
  int write = -1;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  return {ends[0], ends[1]};
}

std::vector<char*> Pointers(Words& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

Words EnvironmentWith(const ChildOptions& options) {
  Words entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (options.environment.count(text.substr(0, text.find('='))) == 0) entries.push_back(text);
  }
  for (const auto& [name, value] : options.environment) {
    if (value) entries.push_back(name + "=" + *value);
  }
  return entries;
}

bool IsZombie(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  // Gives nothing, and throws nothing, for a process that goes while it is read.
  std::getline(file, text, '\0');
  const std::size_t end = text.rfind(')');
  return end != std::string::npos && end + 2 < text.size() && (text[end + 2] == 'Z' || text[end + 2] == 'X');
}

class PosixState : public Child::State {
 public:
  PosixState(pid_t pid, bool ownGroup, int input) : pid_(pid), ownGroup_(ownGroup), input_(input) {}

  unsigned long Pid() const override { return static_cast<unsigned long>(pid_); }
  bool WriteInput(const std::string& text) override {
    signal(SIGPIPE, SIG_IGN);
    std::size_t sent = 0;
    while (sent < text.size()) {
      const ssize_t count = write(input_, text.data() + sent, text.size() - sent);
      if (count <= 0) return false;
      sent += static_cast<std::size_t>(count);
    }
    return true;
  }
  void CloseInput() override {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }
  void Kill() override { kill(pid_, SIGKILL); }
  void Interrupt() override { kill(ownGroup_ ? -pid_ : pid_, SIGINT); }
  bool EndsWithin(unsigned limitMs) override {
    if (reaped_ || (reaped_ = TryReap())) return true;
    const auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd wait{handle, POLLIN, 0};
    while (!reaped_) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      // Without a descriptor for the process, look again every few milliseconds.
      poll(&wait, handle >= 0 ? 1 : 0, handle >= 0 ? static_cast<int>(left) : 5);
      reaped_ = TryReap();
    }
    if (handle >= 0) close(handle);
    return reaped_;
  }
  int ExitCode() override { return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_); }

 private:
  bool TryReap() {
    const pid_t result = waitpid(pid_, &status_, WNOHANG);
    return result == pid_ || (result < 0 && errno == ECHILD);
  }

  const pid_t pid_;
  const bool ownGroup_;
  int input_;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace

std::unique_ptr<Child::State> Child::State::Start(const Words& commandLine, const ChildOptions& options) {
  const Pipe input = MakePipe();
  const Pipe output = MakePipe();
  const Pipe errors = MakePipe();
  Words words = commandLine;
  Words environment = EnvironmentWith(options);
  const std::vector<char*> argv = Pointers(words);
  const std::vector<char*> envp = Pointers(environment);
  // A fork would take longer the more this process has: thousands of threads with their stacks, a sanitizer's memory.
  platform::SpawnSettings settings;
  // As from a shell: this process ignores the signal, and a child would inherit that.
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&settings.attributes, &defaults);
  const int group = options.ownGroup ? POSIX_SPAWN_SETPGROUP : 0;
  posix_spawnattr_setflags(&settings.attributes, static_cast<short>(POSIX_SPAWN_SETSIGDEF | group));
  posix_spawn_file_actions_adddup2(&settings.actions, input.read, 0);
  if (!options.inheritOutput) {
    posix_spawn_file_actions_adddup2(&settings.actions, output.write, 1);
    posix_spawn_file_actions_adddup2(&settings.actions, errors.write, 2);
  }
  if (!options.workingDirectory.empty()) {
    posix_spawn_file_actions_addchdir_np(&settings.actions, options.workingDirectory.c_str());
  }
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], &settings.actions, &settings.attributes, argv.data(), envp.data());
  close(input.read);
  close(output.write);
  close(errors.write);
  if (error != 0) throw std::runtime_error("cannot start " + commandLine[0] + ": " + std::strerror(error));
  auto state = std::make_unique<PosixState>(pid, options.ownGroup, input.write);
  state->threads.emplace_back(Collect, output.read, state->output);
  state->threads.emplace_back(Collect, errors.read, state->errors);
  return state;
}

unsigned long CurrentProcessId() {
  return static_cast<unsigned long>(getpid());
}

bool ProcessExists(unsigned long pid) {
  const pid_t id = static_cast<pid_t>(pid);
  return (kill(id, 0) == 0 || errno == EPERM) && !IsZombie(id);
}

bool ProcessEndsWithin(unsigned long pid, unsigned limitMs) {
  return BecomesTrue([pid] { return !ProcessExists(pid); }, limitMs);
}

bool RefusesProcesses() {
  return false;
}

std::string ProgramPath(const std::string& name) {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string self(path, static_cast<std::size_t>(length));
  return name.empty() ? self : self.substr(0, self.rfind('/') + 1) + name;
}

}  // namespace kestrun::test
