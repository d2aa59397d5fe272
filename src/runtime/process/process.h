// One child process: how it is started, watched, ended, and how its output is collected.
//
// A Process runs one child and is handled through rc_ptr. Order: construct, set the paths, Run (or Start); from then on
// Wait, Terminate, Kill and SendCtrlEvent may come from any thread, also while Run waits on another. The object owns
// the child's process handle, the job object that the child was put in, and the parent's ends of its pipes. Destroying
// it does not wait; if the child has a job of its own, all that is left in the job is ended.
//
// Failures are results: false or -1, with a line on the standard error stream where a child could not be started.
#ifndef KESTRUN_RUNTIME_PROCESS_PROCESS_H_
#define KESTRUN_RUNTIME_PROCESS_PROCESS_H_

#include <atomic>
#include <string>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/environment.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/path.h"
#include "runtime/files/stream.h"
#include "runtime/process/output_gate.h"

namespace kestrun {

class Process : public rc_base {
 public:
  // The priority is a value in the low four bits; an unknown one means normal. The rest are single bits.
  enum Flags : u32 {
    PRIORITY_NORMAL = 0,
    PRIORITY_BELOW_NORMAL = 1,
    PRIORITY_IDLE = 2,
    SHOW_WINDOW = 0x10,
    PIPE_STDIN = 0x20,       // the child's standard input is a pipe that is at its end from the start
    PIPE_STDOUT = 0x40,      // the child's standard output is a pipe
    PIPE_STDERR = 0x80,      // the child's standard error is a pipe
    NO_STD_HANDLES = 0x100,  // the child gets no standard handles; ignored beside any pipe
    NEW_CONSOLE = 0x200,
    OWN_JOB = 0x400,              // leaves the parent's job and gets one of its own, which ends with this object
    BREAKAWAY = 0x800,            // leaves the parent's job; no job of its own
    INHERIT_DESCRIPTORS = 0x1000  // platform::kInheritDescriptors
  };

  // Starts no child yet. The name is that of the job object; an empty one makes an unnamed job.
  explicit Process(const std::string& name);

  // For a process that exists already. Takes over the handle.
  Process(HANDLE process, u32 processId);

  ~Process() override;

  // Closes the process and the job handle. A thread that waits for the child goes on waiting.
  virtual void Close();

  // Waits until the child has ended and everything that it wrote has reached the streams given to Run. False if
  // there is no child, after the time limit, or on failure. `exitCode` may be null.
  virtual bool Wait(u32 timeoutMs, u32* exitCode);

  // A handle of the caller's own that is signalled when the child has ended, to be waited on beside others. Empty if
  // there is no child.
  UniqueHandle GetWaitHandle();

  // Ends the child and everything in its job, waits for it, and closes the handles. The exit code is 0xFFFFFFFF
  // from then on.
  virtual bool Terminate();

  // The first part of Terminate: ends the child and everything in its job, and does not wait. A thread that waits for
  // the child gets the exit code 0xFFFFFFFF. False if there is no child any more.
  bool Kill();

  // Creates the child and lets it run. With `environment` null it inherits the parent's; `affinityMask` is cut down
  // to what the child may use, 0 changes nothing. OWN_JOB and BREAKAWAY are dropped where the parent's own job
  // forbids them; without a job the child still runs.
  bool Start(const std::string& commandLine, u32 flags, const Environment* environment, u32 affinityMask);

  // Start with pipes for standard output and error, and Collect without a limit. Gives the exit code; -1 if the child
  // could not be started or waited for; 0 at once with `noWait`, where a reader thread for each pipe goes on. When it
  // returns after a wait, the streams hold all that the child wrote and are not written any more, even if a descendant
  // still holds the pipes. A null stream drops the output, as does one from the moment when it throws StreamException.
  // Reader threads share the streams, which must therefore be held by rc_ptr; the two streams may be written on two
  // threads at once.
  int Run(const std::string& commandLine, Stream* out, Stream* err, u32 flags, const Environment* environment,
          u32 affinityMask, bool noWait);

  // To be called once, after a Start with pipes for both outputs: waits for the child as Wait does, and brings what it
  // writes to the two streams, as Run does. Where the system allows it the calling thread does all of that. After the
  // time limit the next Wait, also that of Terminate, goes on with it; until then what the child writes stays in its
  // pipes. The gate, which may be null, is told of what MemoryStreams take.
  bool Collect(Stream* out, Stream* err, u32 timeoutMs, u32* exitCode, const rc_ptr<OutputGate>& gate = nullptr);

  // 0 sends Ctrl-C, 1 Ctrl-Break to the child's process group; anything else, or no child yet, is false.
  bool SendCtrlEvent(int event);

  // What follows up to GetStderr is offered to users of the library; the program itself does not ask for it.
  // User and kernel time in units of 100 ns: of the whole job if there is one. 0 if the system does not tell.
  u64 GetCpuTime();
  // The most memory in bytes that a process of the child's job had at once; 0 without a job, and if the system does not
  // tell (Linux counts children as they end).
  u64 GetPeakMemory();

  // The child's exit code; the system's error number after a failure; 0xFFFFFFFF after Terminate.
  u32 GetExitCode() const { return exitCode_; }
  u32 GetProcessId() const { return processId_; }
  const std::string& GetName() const { return name_; }

  // The parent's read ends; empty before Start or without the pipe.
  rc_ptr<Stream> GetStdout() const { return stdout_; }
  rc_ptr<Stream> GetStderr() const { return stderr_; }

  // The program, if the command line alone should not decide, and its working directory. Empty means: not given.
  void SetApplicationPath(const Path& path) { applicationPath_ = path; }
  void SetWorkingDirectory(const Path& path) { workingDirectory_ = path; }

  // This process.
  static rc_ptr<Process> GetCurrent();

 protected:
  // How the child is created: CreateProcessA. A derived class may change the arguments or replace the call.
  virtual BOOL CreateChild(LPCSTR applicationName, LPSTR commandLine, SECURITY_ATTRIBUTES* processAttributes,
                           SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles, DWORD creationFlags,
                           LPVOID environment, LPCSTR currentDirectory, STARTUPINFOA* startupInfo,
                           PROCESS_INFORMATION* processInformation);

 private:
  class SharedHandle;
  struct PipeReader;
  struct ChildPipes;
  struct LaunchRequest;
  struct LaunchOutcome;

  bool Launch(const LaunchRequest& request, const ChildPipes& pipes, UniqueHandle& job, PROCESS_INFORMATION& child);
  LaunchOutcome Create(const LaunchRequest& request, const ChildPipes& pipes, HANDLE job, PROCESS_INFORMATION& child);
  void TakePipes(ChildPipes& pipes);
  void AddReader(const char* name, const rc_ptr<Stream>& pipe, Stream* destination, const rc_ptr<OutputGate>& gate);
  bool StartReaders();
  bool StartWithReaders(Stream* out, Stream* err);
  DWORD AwaitEnd(HANDLE process, u32 timeoutMs);
  DWORD CollectAll(HANDLE process, u32 timeoutMs);
  void FinishReaders();
  rc_ptr<SharedHandle> GetProcessHandle();

  std::string name_;
  Path applicationPath_;
  Path workingDirectory_;
  std::string jobName_;
  std::atomic<u32> processId_{0};
  std::atomic<u32> exitCode_{0};
  rc_ptr<Stream> stdout_;
  rc_ptr<Stream> stderr_;

  CriticalSection handleLock_;
  rc_ptr<SharedHandle>
      process_;       // guarded by handleLock_; waiting threads share it, so that Close does not close it under them
  UniqueHandle job_;  // guarded by handleLock_

  CriticalSection readersLock_;              // held while the readers are waited for, or their work is done
  std::vector<PipeReader> readers_;          // guarded by readersLock_
  std::atomic<bool> hasIdleReaders_{false};  // readers without a thread, whose pipes are not read at present
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_PROCESS_PROCESS_H_
