#include "client/compiler_stub.h"

#include "app/console.h"
#include "protocol/message_reader.h"
#include "protocol/protocol.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;

}  // namespace

CompilerStub::CompilerStub(IniFile& settings, const Options& options, const Path& toolPath)
    : StubBase(settings, options), toolPath_(toolPath), connection_(id_, settings_, options_) {}

int CompilerStub::Run() {
  const std::string project = ChooseProject(options_);
  if (!connection_.OpenClientAccess()) {
    PrintNoMaster("could not access master Kestrun instance (this should have been started by DORN) - aborting...");
    return kFailure;
  }
  if (!WaitForAccess()) return kFailure;
  int exitCode = -1;
  if (HasSendableDirectory() && RunAtMaster(project, exitCode)) return exitCode;
  // After a stop the tool must not be run locally.
  if (connection_.IsStopped()) return kFailure;
  PrintWarning("building locally...");
  return RunLocally();
}

// The local build is stopped first: the end of the channel, which follows, would otherwise start one.
void CompilerStub::Stop(const std::string&) {
  localBuild_.Stop();
  connection_.Stop();
}

bool CompilerStub::WaitForAccess() {
  const std::string& name = options_.name;
  const MasterConnection::WaitTexts texts{
      "KESTRUN: warning: " + name + " still waiting for access to master instance of Kestrun ...",
      name + " timed out waiting for access to master instance of Kestrun", "title", name};
  return connection_.WaitForAccess(texts, {});
}

bool CompilerStub::RunAtMaster(const std::string& project, int& exitCode) {
  const rc_ptr<Message> request = connection_.BuildRequest(toolPath_, options_.toolArgs, project);
  return connection_.Send(request) && WaitForResult(exitCode);
}

bool CompilerStub::WaitForResult(int& exitCode) {
  for (;;) {
    const rc_ptr<Message> message = connection_.Receive(-1);
    if (!message) {
      if (!connection_.IsStopped()) PrintError("Error waiting for response from master");
      return false;
    }
    if (message->GetType() != MSG_BUILD_RESULT) return false;
    if (HandleResult(message, exitCode)) return true;
  }
}

bool CompilerStub::HandleResult(const rc_ptr<Message>& message, int& exitCode) {
  const MessageReader reader(message);
  const std::string_view stdoutText = reader.GetText(SEG_STDOUT);
  const std::string_view stderrText = reader.GetText(SEG_STDERR);
  i32 code = 0;
  const bool isLast = reader.ReadInt(SEG_EXIT_CODE, code);
  // The master could not run the tool; the result's text is Kestrun's own message.
  if (isLast && code == StubFailureCode) {
    PrintError(stderrText);
    return true;
  }
  if (!stdoutText.empty()) WriteStandardOutput(stdoutText);
  if (!stderrText.empty()) WriteStandardError(stderrText);
  if (isLast) exitCode = code;
  return isLast;
}

int CompilerStub::RunLocally() {
  return localBuild_.Run(toolPath_, "\"" + options_.tool + "\" " + options_.toolArgs);
}

}  // namespace kestrun
