// Stands in for one tool invocation: the caller sees a tool that behaves as usual.
#ifndef KESTRUN_STUBS_COMPILER_STUB_H_
#define KESTRUN_STUBS_COMPILER_STUB_H_

#include <string>
#include <vector>

#include "messaging/ipc_channel.h"
#include "messaging/message.h"
#include "runtime/critical_section.h"
#include "runtime/path.h"
#include "runtime/process.h"
#include "stubs/client_place.h"
#include "stubs/stub_base.h"

// A macro of the system's headers, and the name of one of our functions.
#undef SendMessage

namespace kestrun {

// Waits for a place among the master's clients, sends the tool as a build request, echoes what comes back and gives
// the tool's exit code. If the exchange fails once the stub was admitted it says so and runs the tool itself.
//
// The place is held until the destructor. Run works on one thread, Stop comes from another: it breaks the running tool
// or closes the channel, and no local build starts behind it.
class CompilerStub : public StubBase {
 public:
  CompilerStub(IniFile& settings, const Options& options, const Path& toolPath);
  ~CompilerStub() override = default;

  int Run() override;
  void Stop(const std::string& reason) override;

 protected:
  // How waiting for a place speaks to the user and to the log; the two kinds of stub differ in it.
  struct WaitTexts {
    std::string stillWaiting;  // a whole line, without its end
    std::string timedOut;      // what stands behind "KESTRUN: error: "
    std::string fieldName;     // the log field
    std::string fieldValue;
  };

  // KESTRUN_PROJECT, where it is set, beats -p.
  void ReadProject();
  // False, with an error line, where the working directory has a name that no request can carry (260 bytes or more).
  static bool HasNamedDirectory();
  // False if there is no master.
  bool OpenClientAccess();
  // Waits in slices, with a word after each that was in vain. False, after an error line, if the time is over or the
  // master has gone.
  struct WaitLimits {
    u32 sliceMs = 120000;
    u32 totalMs = 3600000;
  };
  bool WaitForAccess(const WaitTexts& texts, const WaitLimits& limits);

  // A MSG_BUILD_REQUEST with response files expanded and this process's whole environment.
  rc_ptr<Message> BuildRequest(const Path& toolPath, const std::string& toolArgs);

  // Connects to the master if that has not happened yet. False, after a line that counts the running instances, if it
  // fails.
  bool Connect();
  // Connects and sends. False after an error line; a channel that failed is dropped.
  bool SendMessage(const rc_ptr<Message>& message);
  // The channel as it is now; empty until connected. Holding it keeps it valid.
  rc_ptr<IpcChannel> GetChannel();
  // True once Stop has come: what fails from then on is no news.
  bool IsStopped();

  std::string project_;        // constant once Run has read the environment
  const std::string jobName_;  // constant after construction

 private:
  bool WaitForResult(int& exitCode);
  bool HandleResult(const rc_ptr<Message>& message, int& exitCode);
  // The local build: the tool with this process's environment and directory, in a job of its own, its output echoed.
  int RunLocally();
  void AddEnvironment(Message& request);

  const Path toolPath_;  // constant after construction; empty in a script stub
  ClientPlace place_;    // main thread only
  // One tree of segments for all the requests of this process: most of a request is the environment.
  std::vector<rc_ptr<Message::Segment>> environment_;

  CriticalSection stateLock_;  // guards the three below
  rc_ptr<IpcChannel> channel_;
  rc_ptr<Process> localProcess_;
  bool stopped_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_STUBS_COMPILER_STUB_H_
