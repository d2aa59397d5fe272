// Order of locks: readersLock_, then handleLock_. readersLock_ is held while the readers are waited for, which may take
// as long as the child runs; handleLock_ only for moments, so that Kill and Close never wait for a reader.
#include "runtime/process/process.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/child_io.h"
#include "runtime/files/file_stream.h"
#include "runtime/process/output_reader.h"
#include "runtime/threads/thread.h"

namespace kestrun {

namespace {

constexpr u32 kPipeFlags = Process::PIPE_STDIN | Process::PIPE_STDOUT | Process::PIPE_STDERR;
constexpr u32 kTerminatedCode = 0xFFFFFFFF;

void PrintLine(const std::string& text) {
  std::fputs((text + "\n").c_str(), stderr);
}

DWORD GetPriorityClass(u32 flags) {
  switch (flags & 0xF) {
    case Process::PRIORITY_BELOW_NORMAL:
      return BELOW_NORMAL_PRIORITY_CLASS;
    case Process::PRIORITY_IDLE:
      return IDLE_PRIORITY_CLASS;
    default:
      return NORMAL_PRIORITY_CLASS;
  }
}

DWORD GetCreationFlags(u32 flags) {
  DWORD result = GetPriorityClass(flags);
  if ((flags & Process::SHOW_WINDOW) == 0) result |= CREATE_NO_WINDOW;
  if ((flags & Process::INHERIT_DESCRIPTORS) != 0) result |= platform::kInheritDescriptors;
  if ((flags & Process::NEW_CONSOLE) != 0) result |= CREATE_NEW_CONSOLE;
  if ((flags & (Process::OWN_JOB | Process::BREAKAWAY)) != 0) result |= CREATE_BREAKAWAY_FROM_JOB;
  return result;
}

// A child may leave the job of this process if this process is in none, or if the job's limits allow it.
bool MayBreakAway() {
  BOOL isInJob = FALSE;
  if (!IsProcessInJob(GetCurrentProcess(), nullptr, &isInJob) || !isInJob) return true;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  if (!QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &limits, sizeof limits, nullptr)) {
    return true;
  }
  return (limits.BasicLimitInformation.LimitFlags & static_cast<DWORD>(JOB_OBJECT_LIMIT_BREAKAWAY_OK)) != 0;
}

u32 SettleFlags(u32 flags) {
  if ((flags & kPipeFlags) != 0) flags &= ~static_cast<u32>(Process::NO_STD_HANDLES);
  const u32 leavesJob = Process::OWN_JOB | Process::BREAKAWAY;
  if ((flags & leavesJob) != 0 && !MayBreakAway()) flags &= ~leavesJob;
  return flags;
}

void ApplyAffinity(HANDLE process, u32 affinityMask) {
  if (affinityMask == 0) return;
  DWORD_PTR processMask = 0;
  DWORD_PTR systemMask = 0;
  if (!GetProcessAffinityMask(process, &processMask, &systemMask)) return;
  SetProcessAffinityMask(process, affinityMask & processMask);
}

// A job that is ended with its last handle, and that allows a tool to start processes outside of it, which outlive it.
// Empty if the system refuses.
UniqueHandle MakeJob(const std::string& name) {
  UniqueHandle job(CreateJobObjectA(nullptr, name.empty() ? nullptr : name.c_str()));
  if (!job) return job;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags =
      JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_BREAKAWAY_OK | JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION;
  if (!SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits)) job.Reset();
  return job;
}

u64 ToTicks(const FILETIME& time) {
  return (static_cast<u64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// The two ends of one standard stream of a child; both empty where the child gets this process's own stream.
struct ChildPipe {
  // Makes the pipe, with the parent's end not inheritable. If that fails a line is printed, and both ends are empty.
  void Create(bool parentReads) {
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &attributes, 0)) {
      PrintLine("CreatePipe() failed!");
      return;
    }
    childEnd.Reset(parentReads ? writeEnd : readEnd);
    UniqueHandle inheritable(parentReads ? readEnd : writeEnd);
    HANDLE own = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), inheritable.Get(), GetCurrentProcess(), &own, 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
      PrintLine("DuplicateHandle() failed!");
      childEnd.Reset();
      return;
    }
    parentEnd.Reset(own);
    if (!inheritable.Reset()) PrintLine("CloseHandle() failed!");
  }

  // The parent's end as a stream. The child's end is closed in this process first, since the pipe does not end as long
  // as a write end is open.
  rc_ptr<Stream> TakeStream() {
    childEnd.Reset();
    if (!parentEnd) return nullptr;
    return new PipeStream(parentEnd.Release(), false);
  }

  UniqueHandle childEnd;
  UniqueHandle parentEnd;
};

HANDLE ChooseHandle(const ChildPipe& pipe, bool isPiped, DWORD standardHandle) {
  return isPiped ? pipe.childEnd.Get() : GetStdHandle(standardHandle);
}

}  // namespace

struct Process::LaunchRequest {
  const std::string& commandLine;
  u32 flags;
  bool isHeldBack;  // created suspended
  const Environment* environment;
};

struct Process::LaunchOutcome {
  bool isCreated;
  DWORD error;
  bool isInJob;  // if it is created
};

class Process::SharedHandle : public rc_base {
 public:
  explicit SharedHandle(HANDLE handle) : handle_(handle) {}
  HANDLE Get() const { return handle_.Get(); }

 private:
  UniqueHandle handle_;
};

struct Process::PipeReader {
  const char* name;
  HANDLE pipe;
  rc_ptr<OutputReader> reader;
  rc_ptr<Thread> thread = nullptr;  // until it has one
};

struct Process::ChildPipes {
  explicit ChildPipes(u32 flags)
      : hasStdin((flags & PIPE_STDIN) != 0),
        hasStdout((flags & PIPE_STDOUT) != 0),
        hasStderr((flags & PIPE_STDERR) != 0) {
    if (hasStdin) in.Create(false);
    if (hasStdout) out.Create(true);
    if (hasStderr) err.Create(true);
  }

  void FillIn(STARTUPINFOA& startupInfo) const {
    startupInfo.dwFlags |= STARTF_USESTDHANDLES;
    startupInfo.hStdInput = ChooseHandle(in, hasStdin, STD_INPUT_HANDLE);
    startupInfo.hStdOutput = ChooseHandle(out, hasStdout, STD_OUTPUT_HANDLE);
    startupInfo.hStdError = ChooseHandle(err, hasStderr, STD_ERROR_HANDLE);
  }

  const bool hasStdin;
  const bool hasStdout;
  const bool hasStderr;
  ChildPipe in;
  ChildPipe out;
  ChildPipe err;
};

Process::Process(const std::string& name) : name_(name), jobName_(name) {}

Process::Process(HANDLE process, u32 processId) : processId_(processId), process_(new SharedHandle(process)) {}

Process::~Process() {
  Process::Close();
}

void Process::Close() {
  rc_ptr<SharedHandle> process;
  UniqueHandle job;
  const Lock lock(handleLock_);
  process.Swap(process_);
  job = std::move(job_);
}

rc_ptr<Process::SharedHandle> Process::GetProcessHandle() {
  const Lock lock(handleLock_);
  return process_;
}

bool Process::Start(const std::string& commandLine, u32 flags, const Environment* environment, u32 affinityMask) {
  flags = SettleFlags(flags);
  ChildPipes pipes(flags);
  UniqueHandle job = (flags & OWN_JOB) != 0 ? MakeJob(jobName_) : UniqueHandle();
  // Created suspended only if it is to be changed before its first instruction: if this process is killed before it
  // resumes the child, the child stays suspended for ever.
  const bool isHeldBack = job || affinityMask != 0;
  PROCESS_INFORMATION child{};
  if (!Launch({commandLine, flags, isHeldBack, environment}, pipes, job, child)) return false;
  const UniqueHandle thread(child.hThread);
  {
    const Lock lock(handleLock_);
    process_ = new SharedHandle(child.hProcess);
    job_ = std::move(job);
  }
  processId_ = child.dwProcessId;
  ApplyAffinity(child.hProcess, affinityMask);
  TakePipes(pipes);
  if (isHeldBack) ResumeThread(thread.Get());
  return true;
}

// Puts the child into its job, at its creation if the system can do that. `job` is emptied if the child is in none.
bool Process::Launch(const LaunchRequest& request, const ChildPipes& pipes, UniqueHandle& job,
                     PROCESS_INFORMATION& child) {
  LaunchOutcome outcome = Create(request, pipes, job.Get(), child);
  // A job around this process may not allow another job to be nested in it.
  if (outcome.isInJob && outcome.error == ERROR_ACCESS_DENIED) outcome = Create(request, pipes, nullptr, child);
  if (!outcome.isCreated) {
    exitCode_ = outcome.error;
    PrintLine("CreateProcess(" + request.commandLine + ") failed with error " + std::to_string(outcome.error));
    return false;
  }
  // The child has not run an instruction yet, so nothing that it starts can escape the job.
  if (job && !outcome.isInJob && !AssignProcessToJobObject(job.Get(), child.hProcess)) job.Reset();
  return true;
}

Process::LaunchOutcome Process::Create(const LaunchRequest& request, const ChildPipes& pipes, HANDLE job,
                                       PROCESS_INFORMATION& child) {
  STARTUPINFOA startupInfo{};
  startupInfo.cb = sizeof startupInfo;
  startupInfo.dwFlags = STARTF_USESHOWWINDOW;
  startupInfo.wShowWindow = (request.flags & SHOW_WINDOW) != 0 ? SW_SHOWDEFAULT : SW_HIDE;
  const bool hasHandles = (request.flags & NO_STD_HANDLES) == 0;
  if (hasHandles) pipes.FillIn(startupInfo);
  platform::ChildStartup startup(startupInfo, job);

  std::string writableCommandLine = request.commandLine;  // CreateProcessA may change it
  const std::unique_ptr<char[]> block =
      request.environment != nullptr ? BuildEnvironmentBlock(*request.environment) : nullptr;
  const DWORD creationFlags = GetCreationFlags(request.flags) | startup.GetCreationFlags() |
                              (request.isHeldBack ? static_cast<DWORD>(CREATE_SUSPENDED) : 0);
  const bool isCreated =
      CreateChild(applicationPath_.IsEmpty() ? nullptr : applicationPath_.c_str(), writableCommandLine.data(), nullptr,
                  nullptr, hasHandles, creationFlags, block.get(),
                  workingDirectory_.IsEmpty() ? nullptr : workingDirectory_.c_str(), startup.GetStartupInfo(), &child);
  return {isCreated, isCreated ? DWORD{ERROR_SUCCESS} : GetLastError(), startup.PutsInJob()};
}

BOOL Process::CreateChild(LPCSTR applicationName, LPSTR commandLine, SECURITY_ATTRIBUTES* processAttributes,
                          SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles, DWORD creationFlags,
                          LPVOID environment, LPCSTR currentDirectory, STARTUPINFOA* startupInfo,
                          PROCESS_INFORMATION* processInformation) {
  return CreateProcessA(applicationName, commandLine, processAttributes, threadAttributes, inheritHandles,
                        creationFlags, environment, currentDirectory, startupInfo, processInformation);
}

void Process::TakePipes(ChildPipes& pipes) {
  if (pipes.hasStdout) stdout_ = pipes.out.TakeStream();
  if (pipes.hasStderr) stderr_ = pipes.err.TakeStream();
  // Both ends are closed here, so that a tool that reads its standard input finds the end at once and does not wait for
  // ever.
  pipes.in.childEnd.Reset();
  pipes.in.parentEnd.Reset();
}

int Process::Run(const std::string& commandLine, Stream* out, Stream* err, u32 flags, const Environment* environment,
                 u32 affinityMask, bool noWait) {
  if (!Start(commandLine, flags | PIPE_STDOUT | PIPE_STDERR, environment, affinityMask)) return -1;
  u32 code = static_cast<u32>(-1);
  if (!noWait) {
    Collect(out, err, kNoLimit, &code);
    return static_cast<int>(code);
  }
  if (StartWithReaders(out, err)) return 0;
  // A child whose pipes are not read would stall.
  Terminate();
  return -1;
}

bool Process::StartWithReaders(Stream* out, Stream* err) {
  const Lock lock(readersLock_);
  AddReader("stdout", stdout_, out, nullptr);
  AddReader("stderr", stderr_, err, nullptr);
  return StartReaders();
}

bool Process::Collect(Stream* out, Stream* err, u32 timeoutMs, u32* exitCode, const rc_ptr<OutputGate>& gate) {
  {
    const Lock lock(readersLock_);
    AddReader("stdout", stdout_, out, gate);
    AddReader("stderr", stderr_, err, gate);
    hasIdleReaders_ = true;
  }
  return Wait(timeoutMs, exitCode);
}

void Process::AddReader(const char* name, const rc_ptr<Stream>& pipe, Stream* destination,
                        const rc_ptr<OutputGate>& gate) {
  if (pipe)
    readers_.push_back({name, static_cast<PipeStream&>(*pipe).GetHandle(), new OutputReader(pipe, destination, gate)});
}

bool Process::StartReaders() {
  for (PipeReader& reader : readers_) {
    rc_ptr<Thread> thread = new Thread(reader.name);
    if (!thread->Start(rc_ptr<Functor0<void>::_DelegateBase>(reader.reader))) return false;
    reader.thread = thread;
  }
  return true;
}

// The first thread that waits does the readers' work; others wait for the child alone.
DWORD Process::AwaitEnd(HANDLE process, u32 timeoutMs) {
  if (hasIdleReaders_.exchange(false)) {
    const DWORD outcome = CollectAll(process, timeoutMs);
    if (outcome != WAIT_FAILED) return outcome;
  }
  return WaitForSingleObject(process, timeoutMs);
}

// Collects on this thread. WAIT_FAILED if the system can't do that, after reader threads were started for it.
DWORD Process::CollectAll(HANDLE process, u32 timeoutMs) {
  const Lock lock(readersLock_);
  std::vector<platform::ChildOutput> outputs;
  for (const PipeReader& reader : readers_) outputs.push_back({reader.pipe, reader.reader.Get()});
  const DWORD outcome = platform::CollectOutput(process, outputs.data(), static_cast<DWORD>(outputs.size()), timeoutMs);
  if (outcome == WAIT_OBJECT_0) {
    readers_.clear();
  } else if (outcome == WAIT_TIMEOUT) {
    hasIdleReaders_ = true;
  } else if (!StartReaders()) {
    Kill();
  }
  return outcome;
}

// Under the lock, so that a second thread that waits for the child does not go on before the output is complete.
void Process::FinishReaders() {
  const Lock lock(readersLock_);
  for (const PipeReader& reader : readers_) reader.reader->Finish(reader.thread.Get());
  readers_.clear();
}

bool Process::Wait(u32 timeoutMs, u32* exitCode) {
  const rc_ptr<SharedHandle> process = GetProcessHandle();
  if (!process) return false;
  const DWORD outcome = AwaitEnd(process->Get(), timeoutMs);
  if (outcome == WAIT_TIMEOUT || outcome == WAIT_FAILED) {
    exitCode_ = GetLastError();
    return false;
  }
  DWORD code = 0;
  const bool hasCode = GetExitCodeProcess(process->Get(), &code);
  exitCode_ = hasCode ? code : GetLastError();
  FinishReaders();
  if (hasCode && exitCode != nullptr) *exitCode = code;
  return hasCode;
}

UniqueHandle Process::GetWaitHandle() {
  const rc_ptr<SharedHandle> process = GetProcessHandle();
  HANDLE own = nullptr;
  if (process) {
    DuplicateHandle(GetCurrentProcess(), process->Get(), GetCurrentProcess(), &own, 0, FALSE, DUPLICATE_SAME_ACCESS);
  }
  return UniqueHandle(own);
}

bool Process::Kill() {
  const Lock lock(handleLock_);
  if (job_) return TerminateJobObject(job_.Get(), kTerminatedCode);
  return process_ && TerminateProcess(process_->Get(), kTerminatedCode);
}

bool Process::Terminate() {
  const bool isEnded = Kill();
  Wait(kNoLimit, nullptr);
  Close();
  exitCode_ = kTerminatedCode;
  return isEnded;
}

bool Process::SendCtrlEvent(int event) {
  // To the system, 0 means every process of this console.
  if (processId_ == 0) return false;
  switch (event) {
    case 0:
      return GenerateConsoleCtrlEvent(CTRL_C_EVENT, processId_);
    case 1:
      return GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, processId_);
    default:
      return false;
  }
}

u64 Process::GetCpuTime() {
  const Lock lock(handleLock_);
  if (job_) {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION times{};
    if (!QueryInformationJobObject(job_.Get(), JobObjectBasicAccountingInformation, &times, sizeof times, nullptr)) {
      return 0;
    }
    return static_cast<u64>(times.TotalUserTime.QuadPart) + static_cast<u64>(times.TotalKernelTime.QuadPart);
  }
  FILETIME creation{};
  FILETIME exit{};
  FILETIME kernel{};
  FILETIME user{};
  if (!process_ || !GetProcessTimes(process_->Get(), &creation, &exit, &kernel, &user)) return 0;
  return ToTicks(kernel) + ToTicks(user);
}

u64 Process::GetPeakMemory() {
  const Lock lock(handleLock_);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION usage{};
  const bool isKnown =
      job_ && QueryInformationJobObject(job_.Get(), JobObjectExtendedLimitInformation, &usage, sizeof usage, nullptr);
  return isKnown ? usage.PeakProcessMemoryUsed : 0;
}

rc_ptr<Process> Process::GetCurrent() {
  // A real handle: the pseudo handle of the process has the value of an invalid one and must not be closed.
  const DWORD id = GetCurrentProcessId();
  return new Process(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, id), id);
}

}  // namespace kestrun
