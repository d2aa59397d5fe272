// CreateProcessA, and what can be asked of and done to a process.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/api/process_api.h"
#include "platform/child_io.h"
#include "platform/linux/base/command_line.h"
#include "platform/linux/base/environment.h"
#include "platform/linux/files/file_names.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/linux/process/child_process.h"
#include "platform/linux/process/pipe.h"
#include "platform/linux/process/program_file.h"
#include "platform/linux/process/std_handles.h"

namespace kestrun::platform {
namespace {

// The object behind the handle of a new process's primary thread.
class PrimaryThread : public Object {
 public:
  explicit PrimaryThread(std::shared_ptr<ChildProcess> child) : Object(ObjectKind::kOther), child_(std::move(child)) {}

  DWORD Resume() override { return child_->LetRun() ? 1 : 0; }

 private:
  const std::shared_ptr<ChildProcess> child_;
};

class ThisProcess : public ProcessObject {
 public:
  ThisProcess() : ProcessObject(getpid()) {}

  DWORD ExitCode() const override { return STILL_ACTIVE; }
  [[noreturn]] bool Terminate(DWORD exitCode) override { ExitProcess(exitCode); }
};

// A static initialiser, so that GetCurrentProcess works before main.
[[maybe_unused]] const bool kThisProcessKnown = (SetCurrentProcessObject(std::make_shared<ThisProcess>()), true);

// A handle that is not a file counts as no handle: callers pass on what a failed CreatePipe has left in their
// variables.
void TakeStreams(const STARTUPINFOA& startup, ChildRequest& request) {
  const bool given = (startup.dwFlags & STARTF_USESTDHANDLES) != 0;
  const HANDLE handles[] = {startup.hStdInput, startup.hStdOutput, startup.hStdError};
  for (int i = 0; i < 3; ++i) request.streams[i] = given ? LookUp<FileObject>(handles[i]) : StandardStream(i);
}

// At nice 4 the scheduler gives a process 423 parts of weight, against 1024 of a normal one: a tool of this class gives
// precedence to interactive work and still makes progress. At nice 10 it would get a tenth of a normal process's share.
constexpr int kNiceBelowNormal = 4;

int NiceOfClass(DWORD flags) {
  if ((flags & IDLE_PRIORITY_CLASS) != 0) return 19;
  if ((flags & BELOW_NORMAL_PRIORITY_CLASS) != 0) return kNiceBelowNormal;
  if ((flags & ABOVE_NORMAL_PRIORITY_CLASS) != 0) return -5;
  if ((flags & HIGH_PRIORITY_CLASS) != 0) return -10;
  return 0;
}

std::vector<std::string> SplitBlock(const char* block) {
  std::vector<std::string> entries;
  for (; *block != '\0'; block += entries.back().size() + 1) entries.emplace_back(block);
  return entries;
}

DWORD OpenWorkingDirectory(LPCSTR name, FileDescriptor& folder) {
  const std::string path = name != nullptr ? SystemName(name) : ".";
  folder.Reset(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (folder) return ERROR_SUCCESS;
  return errno == ENOENT || errno == ENOTDIR ? ERROR_DIRECTORY : Win32ErrorFromErrno(errno);
}

// Fills the request. Gives the error of CreateProcessA, or ERROR_SUCCESS.
DWORD PrepareRequest(LPCSTR application, LPCSTR commandLine, DWORD flags, LPCVOID environment, LPCSTR folder,
                     ChildRequest& request) {
  if (application == nullptr && commandLine == nullptr) return ERROR_INVALID_PARAMETER;
  if (commandLine == nullptr) {
    request.arguments = {application};
  } else {
    request.arguments = SplitCommandLine(commandLine);
  }
  request.path = application != nullptr ? NameOnDisk(SystemName(application)) : FindProgram(request.arguments[0]);
  DWORD error = CheckProgram(request.path);
  if (error != ERROR_SUCCESS) return error;
  request.variables = environment != nullptr ? SplitBlock(static_cast<const char*>(environment)) : EnvironmentEntries();
  error = CheckArgumentSize(request.arguments, request.variables);
  if (error != ERROR_SUCCESS) return error;
  request.nice = NiceOfClass(flags);
  // A relative name is relative to this process's directory, but the tool's process enters the working directory before
  // its exec.
  if (request.path[0] != '/') request.path = CurrentDirectory() + "/" + request.path;
  return OpenWorkingDirectory(folder, request.workingDirectory);
}

// The descriptors that this process inherited: all that it opens itself are close-on-exec, so those without that flag
// are not its own.
std::vector<int> ListInheritedDescriptors() {
  std::vector<int> descriptors;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), &closedir);
  if (!folder) return descriptors;
  while (const dirent* const entry = readdir(folder.get())) {
    const int descriptor = std::atoi(entry->d_name);
    if (descriptor > STDERR_FILENO && fcntl(descriptor, F_GETFD) == 0) descriptors.push_back(descriptor);
  }
  std::sort(descriptors.begin(), descriptors.end());
  return descriptors;
}

// A tool that keeps this process's standard input may read from the terminal, so it stays in this session and process
// group: the kernel stops a background group that reads from its terminal.
void PlaceInSession(DWORD flags, ChildRequest& request) {
  const bool detached = (flags & (CREATE_NEW_CONSOLE | DETACHED_PROCESS)) != 0;
  const bool sharesInput = request.streams[0] != nullptr && request.streams[0] == StandardStream(0);
  request.session = sharesInput && !detached ? SessionKind::kShared : SessionKind::kOwn;
  request.mayBeInterrupted = (flags & CREATE_NEW_PROCESS_GROUP) != 0;
  request.hasOwnGroup = request.session == SessionKind::kOwn || request.mayBeInterrupted;
}

bool GiveHandles(const std::shared_ptr<ChildProcess>& child, PROCESS_INFORMATION& information) {
  information.hProcess = AllocateHandle(child);
  if (information.hProcess == nullptr) return false;
  information.hThread = AllocateHandle(std::make_shared<PrimaryThread>(child));
  if (information.hThread == nullptr) {
    ReleaseHandle(information.hProcess);
    return false;
  }
  information.dwProcessId = static_cast<DWORD>(child->pid());
  information.dwThreadId = information.dwProcessId;
  return true;
}

// The read end of the pipe has to know the processes that write into it (pipe.h).
void LinkOutput(FileObject* stream, const ChildProcess& child) {
  if (auto* const pipe = dynamic_cast<PipeWriteEnd*>(stream)) pipe->feeders().Add(child.exitNotice());
}

}  // namespace
}  // namespace kestrun::platform

using namespace kestrun::platform;

BOOL CreateProcessA(LPCSTR applicationName, LPSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                    DWORD creationFlags, LPVOID environment, LPCSTR currentDirectory, LPSTARTUPINFOA startupInfo,
                    LPPROCESS_INFORMATION processInformation) {
  ChildRequest request;
  DWORD error = PrepareRequest(applicationName, commandLine, creationFlags, environment, currentDirectory, request);
  std::shared_ptr<FileObject> outputs[2];
  std::shared_ptr<ChildProcess> child;
  if (error == ERROR_SUCCESS) {
    TakeStreams(*startupInfo, request);
    PlaceInSession(creationFlags, request);
    if ((creationFlags & kInheritDescriptors) != 0) request.further = ListInheritedDescriptors();
    std::copy_n(request.streams + 1, 2, outputs);
    child = ChildProcess::Start(std::move(request), error);
  }
  if (!child) {
    SetLastError(error);
    return FALSE;
  }
  if (!GiveHandles(child, *processInformation)) {
    child->KillAll(0);
    return FALSE;
  }
  // Before the child runs, so that a reader never takes a pipe without feeders for one that no child was given.
  for (const auto& output : outputs) LinkOutput(output.get(), *child);
  if ((creationFlags & CREATE_SUSPENDED) == 0) child->LetRun();
  return TRUE;
}

BOOL GetExitCodeProcess(HANDLE process, LPDWORD exitCode) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  if (!object) return FALSE;
  *exitCode = object->ExitCode();
  return TRUE;
}

BOOL TerminateProcess(HANDLE process, UINT exitCode) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  return object && object->Terminate(exitCode);
}

void ExitProcess(UINT exitCode) {
  _exit(static_cast<int>(exitCode));
}

DWORD GetProcessId(HANDLE process) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  return object ? static_cast<DWORD>(object->pid()) : 0;
}

BOOL GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  ProcessTimes times;
  if (!object) return FALSE;
  if (!object->Times(times)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *creation = ProcessStartTime(object->pid());
  *exit = FILETIME{};
  *kernel = FileTimeFromMicroseconds(times.kernelUs);
  *user = FileTimeFromMicroseconds(times.userUs);
  return TRUE;
}

BOOL GetProcessAffinityMask(HANDLE process, PDWORD_PTR processMask, PDWORD_PTR systemMask) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  if (!object) return FALSE;
  cpu_set_t set;
  if (sched_getaffinity(object->pid(), sizeof set, &set) != 0) {
    SetLastError(Win32ErrorFromErrno(errno));
    return FALSE;
  }
  // The masks of these calls have 64 bits; further processors are left out.
  const long online = std::min(sysconf(_SC_NPROCESSORS_CONF), 64L);
  *processMask = 0;
  *systemMask = 0;
  for (int i = 0; i < online; ++i) {
    *systemMask |= DWORD_PTR{1} << i;
    if (CPU_ISSET(i, &set)) *processMask |= DWORD_PTR{1} << i;
  }
  return TRUE;
}

BOOL SetProcessAffinityMask(HANDLE process, DWORD_PTR mask) {
  const std::shared_ptr<ProcessObject> object = LookUp<ProcessObject>(process);
  if (!object) return FALSE;
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int i = 0; i < 64; ++i) {
    if ((mask >> i & 1) != 0) CPU_SET(i, &set);
  }
  // The kernel refuses an empty mask, as Windows does.
  if (sched_setaffinity(object->pid(), sizeof set, &set) == 0) return TRUE;
  SetLastError(errno == EINVAL ? ERROR_INVALID_PARAMETER : Win32ErrorFromErrno(errno));
  return FALSE;
}
