// How a child gets its standard streams and how its output is collected, which each system does in its own way.
#ifndef KESTRUN_PLATFORM_CHILD_IO_H_
#define KESTRUN_PLATFORM_CHILD_IO_H_

#include <memory>

#include "platform/win32.h"

namespace kestrun::platform {

// Start-up data by which a child inherits its three standard handles and nothing else, so that threads that start
// children at once do not leak each other's pipe ends into them: a write end in a foreign child would keep its
// reader from ever seeing the end.
//
// With a job the child is also born in it, where the system can do that: a parent that is killed before it could put
// the child into the job would otherwise leave it behind, suspended and with its pipes open.
//
// Used for one CreateProcessA with inheriting on. A handle that is not inheritable stays behind.
class ChildStartup {
 public:
  // The job is null for none; it must outlive this object.
  ChildStartup(const STARTUPINFOA& startupInfo, HANDLE job);
  ChildStartup(const ChildStartup&) = delete;
  ChildStartup& operator=(const ChildStartup&) = delete;
  ~ChildStartup();

  // The start-up data for CreateProcessA; lives as long as this object.
  STARTUPINFOA* GetStartupInfo();
  // To be added to the creation flags.
  DWORD GetCreationFlags() const;
  // False without a job, and where the caller has to put the child into it.
  bool PutsInJob() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A creation flag: the child also inherits the descriptors above the standard ones that this process was started with,
// such as the pipe of an outer make's jobserver, and none that it has opened. 0 where descriptors are the business of a
// run-time library.
extern const DWORD kInheritDescriptors;

// Ends the read in which a thread is blocked; the read fails with ERROR_OPERATION_ABORTED. Has no effect if the thread
// is in no read at that moment, and none on systems where a read from a child's pipe ends with the child by itself.
void InterruptRead(HANDLE thread);

// Where the bytes of a child's output go.
class OutputSink {
 public:
  virtual ~OutputSink() = default;
  // Memory for up to `count` bytes, from which Take takes them without a copy; null if there is no memory.
  virtual char* MakeRoom(DWORD count) = 0;
  virtual void Take(const char* bytes, DWORD count) = 0;
};

struct ChildOutput {
  HANDLE pipe;
  OutputSink* sink;
};

// Waits for the end of a child and reads its outputs meanwhile, all on the calling thread. WAIT_OBJECT_0 once the child
// has ended and the sinks have all that it wrote, even if other processes still hold the pipes; WAIT_TIMEOUT if that
// takes longer, after which the next call continues. Only one call at a time for one child.
//
// WAIT_FAILED with ERROR_NOT_SUPPORTED where the system can't wait for a process and for pipes at once, or the handles
// are of another kind: the caller then has a thread for each pipe.
DWORD CollectOutput(HANDLE process, const ChildOutput* outputs, DWORD count, DWORD timeoutMs);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_CHILD_IO_H_
