// Stands in for one invocation of a tool, so that the caller sees a tool that behaves as usual.
#ifndef KESTRUN_CLIENT_COMPILER_STUB_H_
#define KESTRUN_CLIENT_COMPILER_STUB_H_

#include <string>

#include "app/stub_base.h"
#include "client/local_build.h"
#include "client/master_connection.h"
#include "messaging/message.h"
#include "runtime/files/path.h"

namespace kestrun {

// Waits for admission by the master, sends the tool as a build request, echoes what comes back and gives the tool's
// exit code. If the exchange fails after the stub was admitted, it prints a warning and runs the tool itself.
//
// The client slot is held until the destructor. Run works on one thread, Stop comes from another: it breaks the running
// tool and closes the channel, and no local build starts afterwards.
class CompilerStub : public StubBase {
 public:
  CompilerStub(IniFile& settings, const Options& options, const Path& toolPath);
  ~CompilerStub() override = default;

  int Run() override;
  void Stop(const std::string& reason) override;

 private:
  bool WaitForAccess();
  // Sends the tool and takes its result. False if the exchange failed.
  bool RunAtMaster(const std::string& project, int& exitCode);
  bool WaitForResult(int& exitCode);
  // True for the last result.
  bool HandleResult(const rc_ptr<Message>& message, int& exitCode);
  int RunLocally();

  const Path toolPath_;
  MasterConnection connection_;
  LocalBuild localBuild_;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_COMPILER_STUB_H_
