#include "frontend/forms.h"

#include <memory>

#include "app/console.h"
#include "app/stub_base.h"
#include "client/compiler_stub.h"
#include "client/script_stub.h"
#include "client/tool_lookup.h"
#include "client/transparent_tool.h"
#include "frontend/option_parser.h"
#include "frontend/usage.h"
#include "master/dorn_watch.h"
#include "master/project_stub.h"
#include "platform/tool_process.h"
#include "protocol/names.h"
#include "runtime/base/exception.h"
#include "runtime/base/handle.h"
#include "runtime/base/text.h"
#include "runtime/files/log.h"
#include "runtime/files/version_string.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;

int RunStub(StubBase& stub) {
  const CurrentStub current(stub);
  return stub.Run();
}

std::string DescribeException(const char* word, const SystemException& e) {
  return std::string("KESTRUN: error: ") + word + " thrown: error=" + std::to_string(e.GetCode()) + ", msg=" + e.what();
}

Log::Fields ExceptionFields(const SystemException& e) {
  return {{"error_code", std::to_string(static_cast<u32>(e.GetCode()))}, {"error_msg", e.what()}};
}

int RunScript(IniFile& settings, const Options& options) {
  WriteLog(Log::Info, Log::STUB, "Creating Script Stub", {{"project", options.project}});
  try {
    ScriptStub stub(settings, options);
    const int code = RunStub(stub);
    WriteLog(Log::Info, Log::STUB, "Script Stub finished",
             {{"project", options.project}, {"return_code", std::to_string(static_cast<u32>(code))}});
    return code;
  } catch (const SystemException& e) {
    WriteStandardError(DescribeException("exception", e));
    Log::Fields fields = ExceptionFields(e);
    fields.insert(fields.begin(), {"project", options.project});
    WriteLog(Log::Error, Log::STUB, "Script Stub threw an exception", fields);
    return kFailure;
  }
}

// The watch of the dorns outlives the stub: it ends the process if the stub does not end in time.
int RunMaster(IniFile& settings, const Options& options) {
  WriteLog(Log::Info, Log::STUB, "Creating master Kestrun instance");
  try {
    const std::unique_ptr<DornWatch> dorns = DornWatch::Open(options);
    if (dorns) dorns->SettleJobs(settings, ProjectStub::kDefaultMaxConcurrentJobs);
    ProjectStub stub(settings, options);
    const int code = RunStub(stub);
    WriteLog(Log::Info, Log::STUB, "Master Kestrun instance finished",
             {{"return_code", std::to_string(static_cast<u32>(code))}});
    return code;
  } catch (const SystemException& e) {
    WriteStandardError(DescribeException("exception", e));
    WriteLog(Log::Error, Log::STUB, "Master Kestrun instance threw an exception", ExceptionFields(e));
    return kFailure;
  }
}

int RunTool(IniFile& settings, const Options& options) {
  if (options.tool.empty()) {
    PrintError("No tool specified");
    return kFailure;
  }
  const Path toolPath = FindTypedTool(options.tool);
  if (toolPath.IsEmpty()) {
    PrintError("Could not get full path for tool " + ToLower(options.tool));
    ExplainWrongOption(options.tool);
    return kFailure;
  }
  try {
    CompilerStub stub(settings, options, toolPath);
    return RunStub(stub);
  } catch (const SystemException& e) {
    WriteStandardError(DescribeException("Exception", e));
    return kFailure;
  }
}

// Runs the tool in this client's place, with Extensions/TransparentTools. RunTransparently has done so already for a
// tool without a time limit, if a master grants slots; what is left are a time limit, and a build without a master.
// False if a master is there that grants no slots: then that master runs the tool.
bool RunTransparentTool(int argc, const char* const* argv, IniFile& settings, const Options& options,
                        TransparentRun transparent, int& exitCode) {
  if (!settings.GetBool("Extensions/TransparentTools", false)) return false;
  TransparentTool tool(options, GetToolWords(options, argc, argv));
  if (settings.GetBool("Extensions/EnforceJobTimeout", false)) tool.SetTimeout(options.timeoutSeconds);
  const std::string id = GetBuildId(options);
  // RunTransparently did not reach a server a moment ago, so it is not asked again.
  const bool isAsked = transparent == TransparentRun::kNoServer;
  if (!isAsked && tool.RunInSlot(id, exitCode) == TransparentTool::Outcome::kDone) return true;
  // A master makes this semaphore for its client slots; without it no master of this id runs.
  if (UniqueHandle(OpenSemaphoreA(SYNCHRONIZE, FALSE, GetAccessName(id).c_str()))) return false;
  WriteLog(Log::Info, Log::STUB, "No master: running the tool alone");
  exitCode = tool.RunAlone();
  if (exitCode == platform::kExitNotFound) ExplainWrongOption(options.tool);
  return true;
}

int RunForm(int argc, const char* const* argv, IniFile& settings, const Options& options, TransparentRun transparent) {
  if (options.showHelp) {
    options.tool == "all" ? PrintHelp() : PrintUsage();
    return 0;
  }
  if (options.showVersion) {
    WriteStandardOutput(GetVersionString() + "\n");
    return 0;
  }
  if (!options.scriptPath.empty()) return RunScript(settings, options);
  if (options.master) return RunMaster(settings, options);
  // A command line of blanks only parses as a tool with an empty name.
  if (argc < 2) {
    PrintUsage();
    return 0;
  }
  int exitCode = 0;
  if (RunTransparentTool(argc, argv, settings, options, transparent, exitCode)) return exitCode;
  return RunTool(settings, options);
}

}  // namespace

int RunFrontEnd(int argc, const char* const* argv, const std::string& commandLine, IniFile& settings,
                TransparentRun transparent) {
  Options options;
  std::string cause;
  switch (ReadOptions(commandLine, GetWords(argc, argv), options, &cause)) {
    case OptionsFault::kEnvironment:
      WriteStandardError("KESTRUN: error parsing KESTRUN_OPTS environment variable\nKESTRUN: " + cause + "\n");
      return kFailure;
    case OptionsFault::kCommandLine:
      PrintUsage();
      if (argc > 1) PrintError(cause);
      return kFailure;
    case OptionsFault::kNone:
      break;
  }
  const int exitCode = RunForm(argc, argv, settings, options, transparent);
  // A build must not take truncated output for success.
  return exitCode == 0 && HasLostOutput() ? kFailure : exitCode;
}

}  // namespace kestrun
