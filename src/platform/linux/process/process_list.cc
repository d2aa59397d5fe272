// Other processes: their ids, their names, and handles on them.
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/api/process_api.h"
#include "platform/linux/base/command_line.h"
#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/base/process_stat.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/process/child_process.h"
#include "platform/linux/process/program_file.h"

namespace kestrun::platform {
namespace {

// A process that this one did not start. Its end is seen through a pidfd, which refers to the same process even after
// its id was used again. On a kernel without pidfds (before 5.3) the end is not seen, waits for the process never end,
// and it can't be terminated.
class ForeignProcess : public ProcessObject, public ReaperClient {
 public:
  ForeignProcess(pid_t pid, FileDescriptor descriptor) : ProcessObject(pid), descriptor_(std::move(descriptor)) {}

  DWORD ExitCode() const override { return IsSignalled() ? 0 : STILL_ACTIVE; }
  bool Terminate(DWORD) override {
    const std::lock_guard lock(mutex_);
#ifdef SYS_pidfd_send_signal
    if (descriptor_ && syscall(SYS_pidfd_send_signal, descriptor_.get(), SIGKILL, nullptr, 0) == 0) return true;
#endif
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
  }
  bool OnReadable() override {
    Signal();
    return false;
  }
  void OnLetGo() override {
    const std::lock_guard lock(mutex_);
    descriptor_.Reset();
  }

 private:
  std::mutex mutex_;
  FileDescriptor descriptor_;  // guarded by mutex_
};

std::shared_ptr<ProcessObject> OpenForeign(pid_t pid) {
  FileDescriptor descriptor;
#ifdef SYS_pidfd_open
  descriptor.Reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#endif
  const int watched = descriptor.get();
  auto process = std::make_shared<ForeignProcess>(pid, std::move(descriptor));
  if (watched >= 0) WatchDescriptor(watched, process);
  return process;
}

// The first line of a small file in a process's folder; empty if it can't be read.
std::string ReadProcessFile(pid_t pid, const char* file) {
  const std::string name = "/proc/" + std::to_string(pid) + "/" + file;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(name.c_str(), "re"), &std::fclose);
  char text[64];
  if (!stream || std::fgets(text, sizeof text, stream.get()) == nullptr) return "";
  text[std::strcspn(text, "\n")] = '\0';
  return text;
}

// Helper processes run this program's file as well. Their own name tells them apart, so that a search for this
// program's processes does not find them.
std::string ProgramName(pid_t pid) {
  const std::string shortName = ReadProcessFile(pid, "comm");
  if (shortName == kHelperName) return shortName;
  char path[PATH_MAX];
  const ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
  if (length <= 0) return shortName;
  std::string name(path, static_cast<std::size_t>(length));
  // The kernel appends this to the path of a file that was removed or replaced while it runs, as a rebuild does.
  constexpr std::string_view kDeleted = " (deleted)";
  if (name.ends_with(kDeleted)) name.resize(name.size() - kDeleted.size());
  return name.substr(name.rfind('/') + 1);
}

// The contract of GetModuleFileNameA: a name that does not fit is cut off, and the answer is the size of the buffer.
DWORD CopyName(const std::string& name, LPSTR buffer, DWORD size) {
  if (name.empty() || size == 0) {
    SetLastError(name.empty() ? ERROR_ACCESS_DENIED : ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  const std::size_t count = std::min<std::size_t>(name.size(), size - 1);
  std::memcpy(buffer, name.data(), count);
  buffer[count] = '\0';
  if (count == name.size()) return static_cast<DWORD>(count);
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return size;
}

// From /proc and not from main, so that the layer needs no call at the start of each program.
std::vector<std::string> OwnArguments() {
  std::vector<std::string> arguments;
  const FileDescriptor file(open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
  std::string text;
  char block[4096];
  for (ssize_t count; file && (count = read(file.get(), block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(count));
  }
  for (std::size_t at = 0; at < text.size(); at += arguments.back().size() + 1) arguments.emplace_back(&text[at]);
  return arguments;
}

}  // namespace
}  // namespace kestrun::platform

using namespace kestrun::platform;

HANDLE OpenProcess(DWORD, BOOL, DWORD processId) {
  const pid_t pid = static_cast<pid_t>(processId);
  if (pid == getpid()) return AllocateHandle(LookUpObject(GetCurrentProcess()));
  if (const std::shared_ptr<ChildProcess> child = ChildProcess::Find(pid)) return AllocateHandle(child);
  // EPERM: the process exists and belongs to another user.
  if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return AllocateHandle(OpenForeign(pid));
}

BOOL EnumProcesses(DWORD* ids, DWORD size, LPDWORD needed) {
  ProcessList list;
  if (!list.IsValid()) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  DWORD count = 0;
  for (pid_t pid = 0; count < size / sizeof *ids && (pid = list.Next()) != 0;) ids[count++] = static_cast<DWORD>(pid);
  *needed = static_cast<DWORD>(count * sizeof *ids);
  return TRUE;
}

DWORD GetModuleBaseNameA(HANDLE process, HMODULE, LPSTR name, DWORD size) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  return object ? CopyName(ProgramName(object->pid()), name, size) : 0;
}

DWORD GetModuleFileNameA(HMODULE, LPSTR fileName, DWORD size) {
  return CopyName(OwnProgramFile(), fileName, size);
}

LPSTR GetCommandLineA() {
  static std::string line = JoinCommandLine(OwnArguments());
  return line.data();
}
