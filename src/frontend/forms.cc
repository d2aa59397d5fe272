#include "frontend/forms.h"

#include <cstdlib>

#include "frontend/command_line_tail.h"
#include "frontend/option_parser.h"
#include "frontend/usage.h"
#include "master/project_stub.h"
#include "runtime/exception.h"
#include "runtime/log.h"
#include "runtime/system_utilities.h"
#include "runtime/text.h"
#include "stubs/compiler_stub.h"
#include "stubs/console.h"
#include "stubs/script_stub.h"
#include "stubs/tool_lookup.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;

void WriteLog(Log::Level level, const char* message, const Log::Fields& fields = {}) {
  if (Log* log = Log::Get()) log->Write(level, Log::STUB, message, fields);
}

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
  WriteLog(Log::Info, "Creating Script Stub", {{"project", options.project}});
  try {
    ScriptStub stub(settings, options);
    const int code = RunStub(stub);
    WriteLog(Log::Info, "Script Stub finished",
             {{"project", options.project}, {"return_code", std::to_string(static_cast<u32>(code))}});
    return code;
  } catch (const SystemException& e) {
    WriteStandardError(DescribeException("exception", e));
    Log::Fields fields = ExceptionFields(e);
    fields.insert(fields.begin(), {"project", options.project});
    WriteLog(Log::Error, "Script Stub threw an exception", fields);
    return kFailure;
  }
}

int RunMaster(IniFile& settings, const Options& options) {
  WriteLog(Log::Info, "Creating master Kestrun instance");
  try {
    ProjectStub stub(settings, options);
    const int code = RunStub(stub);
    WriteLog(Log::Info, "Master Kestrun instance finished", {{"return_code", std::to_string(static_cast<u32>(code))}});
    return code;
  } catch (const SystemException& e) {
    WriteStandardError(DescribeException("exception", e));
    WriteLog(Log::Error, "Master Kestrun instance threw an exception", ExceptionFields(e));
    return kFailure;
  }
}

int RunTool(IniFile& settings, const Options& options) {
  const std::string tool = ToLower(options.tool);
  if (tool.empty()) {
    PrintError("No tool specified");
    return kFailure;
  }
  const Path toolPath = FindTool(tool);
  if (toolPath.IsEmpty()) {
    PrintError("Could not get full path for tool " + tool);
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

int RunForm(int argc, IniFile& settings, const Options& options) {
  if (options.showHelp) {
    PrintUsage();
    return 0;
  }
  if (options.showVersion) {
    WriteStandardOutput(GetVersionString() + "\n");
    return 0;
  }
  if (!options.scriptPath.empty()) return RunScript(settings, options);
  if (options.master) return RunMaster(settings, options);
  if (argc < 2) {
    PrintUsage();
    return 0;
  }
  return RunTool(settings, options);
}

}  // namespace

int RunFrontEnd(int argc, const std::string& commandLine, IniFile& settings) {
  Options fromEnvironment;
  const char* text = std::getenv("KESTRUN_OPTS");
  if (text != nullptr && !ParseOptions(fromEnvironment, text, true)) {
    WriteStandardError("KESTRUN: error parsing KESTRUN_OPTS environment variable\n");
    return kFailure;
  }
  Options fromCommandLine;
  if (!ParseOptions(fromCommandLine, GetCommandLineTail(commandLine), false)) {
    PrintUsage();
    return kFailure;
  }
  Options options;
  MergeOptions(options, fromEnvironment, fromCommandLine);
  return RunForm(argc, settings, options);
}

}  // namespace kestrun
