#include "support/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "support/child_output.h"

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
  const std::string text(std::istreambuf_iterator<char>(file), {});
  const std::size_t end = text.rfind(')');
  return end != std::string::npos && end + 2 < text.size() && (text[end + 2] == 'Z' || text[end + 2] == 'X');
}

}  // namespace

struct Child::State {
  pid_t pid = -1;
  bool ownGroup = false;
  bool reaped = false;
  int status = 0;
  int input = -1;
  std::shared_ptr<ChildOutput> output = std::make_shared<ChildOutput>();
  std::shared_ptr<ChildOutput> errors = std::make_shared<ChildOutput>();
  std::vector<std::thread> threads;

  bool TryReap() {
    const pid_t result = waitpid(pid, &status, WNOHANG);
    return result == pid || (result < 0 && errno == ECHILD);
  }

  bool Reap(unsigned limitMs) {
    if (reaped || (reaped = TryReap())) return true;
    const auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pollfd wait{handle, POLLIN, 0};
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      // Without a descriptor for the process, look again every few milliseconds.
      poll(&wait, handle >= 0 ? 1 : 0, handle >= 0 ? static_cast<int>(left) : 5);
      if ((reaped = TryReap())) break;
    }
    if (handle >= 0) close(handle);
    return reaped;
  }
};

Child::Child(std::unique_ptr<State> state) : state_(std::move(state)) {}
Child::Child(Child&&) noexcept = default;
Child& Child::operator=(Child&&) noexcept = default;

Child Child::Start(const Words& commandLine, const ChildOptions& options) {
  auto state = std::make_unique<State>();
  state->ownGroup = options.ownGroup;
  const Pipe input = MakePipe();
  const Pipe output = MakePipe();
  const Pipe errors = MakePipe();
  Words words = commandLine;
  Words environment = EnvironmentWith(options);
  const std::vector<char*> argv = Pointers(words);
  const std::vector<char*> envp = Pointers(environment);
  state->pid = fork();
  if (state->pid == 0) {
    if (options.ownGroup) setpgid(0, 0);
    dup2(input.read, 0);
    if (!options.inheritOutput) {
      dup2(output.write, 1);
      dup2(errors.write, 2);
    }
    if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0) _exit(126);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(input.read);
  close(output.write);
  close(errors.write);
  state->input = input.write;
  state->threads.emplace_back(Collect, output.read, state->output);
  state->threads.emplace_back(Collect, errors.read, state->errors);
  Child child(std::move(state));
  if (options.input) {
    signal(SIGPIPE, SIG_IGN);
    std::size_t sent = 0;
    while (sent < options.input->size()) {
      const ssize_t count = write(input.write, options.input->data() + sent, options.input->size() - sent);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
    child.CloseInput();
  }
  return child;
}

Child::~Child() {
  if (!state_) return;
  if (!state_->reaped) Kill();
  CloseInput();
  // A descendant may hold an output open for longer than the child lived; the reader then outlives this object.
  for (std::thread& thread : state_->threads) thread.detach();
}

unsigned long Child::Pid() const {
  return static_cast<unsigned long>(state_->pid);
}
std::string Child::ReadLine() {
  return state_->output->ReadLine();
}
std::string Child::Output() const {
  return state_->output->All();
}
std::string Child::Errors() const {
  return state_->errors->All();
}

void Child::Tell(const std::string& line) {
  const std::string text = line + "\n";
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(write(state_->input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void Child::CloseInput() {
  if (state_->input >= 0) close(state_->input);
  state_->input = -1;
}

void Child::Kill() {
  if (state_->reaped) return;
  kill(state_->pid, SIGKILL);
  state_->Reap(60000);
}

void Child::Interrupt() {
  kill(state_->ownGroup ? -state_->pid : state_->pid, SIGINT);
}

bool Child::EndsWithin(unsigned limitMs) {
  return state_->Reap(limitMs);
}

int Child::Wait(unsigned limitMs) {
  if (!state_->Reap(limitMs)) {
    ADD_FAILURE() << "the child did not end within " << limitMs << " ms; its errors: " << Errors();
    Kill();
  }
  for (std::thread& thread : state_->threads) {
    if (thread.joinable()) thread.join();
  }
  state_->threads.clear();
  return WIFEXITED(state_->status) ? WEXITSTATUS(state_->status) : 128 + WTERMSIG(state_->status);
}

unsigned long CurrentProcessId() {
  return static_cast<unsigned long>(getpid());
}

bool ProcessExists(unsigned long pid) {
  const pid_t id = static_cast<pid_t>(pid);
  return (kill(id, 0) == 0 || errno == EPERM) && !IsZombie(id);
}

bool ProcessEndsWithin(unsigned long pid, unsigned limitMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
  while (ProcessExists(pid)) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string ProgramPath(const std::string& name) {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string self(path, static_cast<std::size_t>(length));
  return name.empty() ? self : self.substr(0, self.rfind('/') + 1) + name;
}

}  // namespace kestrun::test
