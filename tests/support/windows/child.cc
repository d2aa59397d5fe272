#include "support/child.h"

#include <windows.h>

#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/child_state.h"

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

class WindowsState : public Child::State {
 public:
  WindowsState(const PROCESS_INFORMATION& process, HANDLE input)
      : process_(process.hProcess), pid_(process.dwProcessId), input_(input) {}
  ~WindowsState() override { CloseHandle(process_); }

  unsigned long Pid() const override { return pid_; }
  bool WriteInput(const std::string& text) override {
    DWORD sent = 0;
    return WriteFile(input_, text.data(), static_cast<DWORD>(text.size()), &sent, nullptr);
  }
  void CloseInput() override {
    if (input_ != nullptr) CloseHandle(input_);
    input_ = nullptr;
  }
  void Kill() override { TerminateProcess(process_, 137); }
  void Interrupt() override { GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, pid_); }
  bool EndsWithin(unsigned limitMs) override { return WaitForSingleObject(process_, limitMs) == WAIT_OBJECT_0; }
  int ExitCode() override {
    DWORD code = 0;
    GetExitCodeProcess(process_, &code);
    return static_cast<int>(code);
  }

 private:
  const HANDLE process_;
  const DWORD pid_;
  HANDLE input_;
};

}  // namespace

std::unique_ptr<Child::State> Child::State::Start(const Words& commandLine, const ChildOptions& options) {
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
  auto state = std::make_unique<WindowsState>(process, input.write);
  state->threads.emplace_back(Collect, output.read, state->output);
  state->threads.emplace_back(Collect, errors.read, state->errors);
  return state;
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

bool RefusesProcesses() {
  return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
}

std::string ProgramPath(const std::string& name) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  const std::string self = path;
  return name.empty() ? self : self.substr(0, self.rfind('\\') + 1) + name + ".exe";
}

}  // namespace kestrun::test
