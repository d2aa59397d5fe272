#include "support/child.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/child_output.h"

namespace kestrun::test {
namespace {

void Collect(HANDLE pipe, std::shared_ptr<ChildOutput> output) {
  char block[65536];
  DWORD count = 0;
  while (ReadFile(pipe, block, sizeof block, &count, nullptr) && count > 0) output->Append(block, count);
  output->End();
  CloseHandle(pipe);
}

struct Pipe {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
};

// Both ends can be inherited; the parent's is then closed to inheritance.
Pipe MakePipe(bool parentReads) {
  SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, TRUE};
  Pipe made;
  if (!CreatePipe(&made.read, &made.write, &attributes, 1 << 16)) throw std::runtime_error("CreatePipe failed");
  SetHandleInformation(parentReads ? made.read : made.write, HANDLE_FLAG_INHERIT, 0);
  return made;
}

// One argument as the C run-time of Windows takes it apart again.
std::string Quote(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos) return word;
  std::string text = "\"";
  std::size_t slashes = 0;
  for (const char c : word) {
    if (c == '"') text.append(slashes + 1, '\\');
    slashes = c == '\\' ? slashes + 1 : 0;
    text += c;
  }
  return text.append(slashes, '\\') + "\"";
}

std::string EnvironmentBlock(const ChildOptions& options) {
  std::string block;
  char* const strings = GetEnvironmentStringsA();
  for (const char* entry = strings; *entry != '\0'; entry += std::string(entry).size() + 1) {
    const std::string text = entry;
    if (options.environment.count(text.substr(0, text.find('=', 1))) == 0) block += text + '\0';
  }
  FreeEnvironmentStringsA(strings);
  for (const auto& [name, value] : options.environment) {
    if (value) block += name + "=" + *value + '\0';
  }
  return block + '\0';
}

}  // namespace

struct Child::State {
  HANDLE process = nullptr;
  DWORD pid = 0;
  HANDLE input = nullptr;
  std::shared_ptr<ChildOutput> output = std::make_shared<ChildOutput>();
  std::shared_ptr<ChildOutput> errors = std::make_shared<ChildOutput>();
  std::vector<std::thread> threads;

  bool Ended(unsigned limitMs) const { return WaitForSingleObject(process, limitMs) == WAIT_OBJECT_0; }
};

Child::Child(std::unique_ptr<State> state) : state_(std::move(state)) {}
Child::Child(Child&&) noexcept = default;
Child& Child::operator=(Child&&) noexcept = default;

Child Child::Start(const Words& commandLine, const ChildOptions& options) {
  // A second child that starts between MakePipe and CloseHandle would inherit this one's ends.
  static std::mutex starting;
  std::lock_guard lock(starting);
  const Pipe input = MakePipe(false);
  const Pipe output = MakePipe(true);
  const Pipe errors = MakePipe(true);
  std::string text;
  for (const std::string& word : commandLine) text += (text.empty() ? "" : " ") + Quote(word);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = input.read;
  startup.hStdOutput = options.inheritOutput ? GetStdHandle(STD_OUTPUT_HANDLE) : output.write;
  startup.hStdError = options.inheritOutput ? GetStdHandle(STD_ERROR_HANDLE) : errors.write;
  PROCESS_INFORMATION process{};
  std::string environment = EnvironmentBlock(options);
  const BOOL started = CreateProcessA(
      nullptr, text.data(), nullptr, nullptr, TRUE, options.ownGroup ? CREATE_NEW_PROCESS_GROUP : 0, environment.data(),
      options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str(), &startup, &process);
  const DWORD error = GetLastError();
  CloseHandle(input.read);
  CloseHandle(output.write);
  CloseHandle(errors.write);
  if (!started) throw std::runtime_error("cannot start " + text + ": error " + std::to_string(error));
  CloseHandle(process.hThread);
  auto state = std::make_unique<State>();
  state->process = process.hProcess;
  state->pid = process.dwProcessId;
  state->input = input.write;
  state->threads.emplace_back(Collect, output.read, state->output);
  state->threads.emplace_back(Collect, errors.read, state->errors);
  Child child(std::move(state));
  if (options.input) {
    DWORD sent = 0;
    WriteFile(child.state_->input, options.input->data(), static_cast<DWORD>(options.input->size()), &sent, nullptr);
    child.CloseInput();
  }
  return child;
}

Child::~Child() {
  if (!state_) return;
  Kill();
  CloseInput();
  CloseHandle(state_->process);
  for (std::thread& thread : state_->threads) thread.detach();
}

unsigned long Child::Pid() const {
  return state_->pid;
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
  DWORD sent = 0;
  EXPECT_TRUE(WriteFile(state_->input, text.data(), static_cast<DWORD>(text.size()), &sent, nullptr));
}

void Child::CloseInput() {
  if (state_->input != nullptr) CloseHandle(state_->input);
  state_->input = nullptr;
}

void Child::Kill() {
  if (state_->Ended(0)) return;
  TerminateProcess(state_->process, 137);
  state_->Ended(60000);
}

void Child::Interrupt() {
  GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, state_->pid);
}

bool Child::EndsWithin(unsigned limitMs) {
  return state_->Ended(limitMs);
}

int Child::Wait(unsigned limitMs) {
  if (!state_->Ended(limitMs)) {
    ADD_FAILURE() << "the child did not end within " << limitMs << " ms; its errors: " << Errors();
    Kill();
  }
  for (std::thread& thread : state_->threads) {
    if (thread.joinable()) thread.join();
  }
  state_->threads.clear();
  DWORD code = 0;
  GetExitCodeProcess(state_->process, &code);
  return static_cast<int>(code);
}

unsigned long CurrentProcessId() {
  return GetCurrentProcessId();
}

bool ProcessExists(unsigned long pid) {
  return !ProcessEndsWithin(pid, 0);
}

bool ProcessEndsWithin(unsigned long pid, unsigned limitMs) {
  const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
  if (process == nullptr) return true;
  const bool ended = WaitForSingleObject(process, limitMs) == WAIT_OBJECT_0;
  CloseHandle(process);
  return ended;
}

std::string ProgramPath(const std::string& name) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  const std::string self = path;
  return name.empty() ? self : self.substr(0, self.rfind('\\') + 1) + name + ".exe";
}

}  // namespace kestrun::test
