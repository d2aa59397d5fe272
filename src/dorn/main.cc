#include <cstdio>

#include "dorn/exit_codes.h"
#include "dorn/history.h"
#include "dorn/options.h"
#include "dorn/program_search.h"
#include "dorn/report.h"
#include "dorn/report_page.h"
#include "dorn/session.h"
#include "dorn/settings.h"
#include "dorn/status.h"
#include "platform/host.h"
#include "runtime/base/exception.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/executable_search.h"
#include "runtime/files/version_string.h"

namespace kestrun::dorn {

namespace {

void PrintWhere() {
  const Path kestrun = FindKestrun();
  const std::string objects = platform::NamedObjectFolder();
  std::printf("settings  %s\n", GetFullPath(GetSettingsPath()).c_str());
  std::printf("log       %s\n", GetFullPath(GetCommonPath() / "Log").c_str());
  std::printf("objects   %s\n", objects.empty() ? "(in no folder)" : objects.c_str());
  std::printf("kestrun   %s\n", kestrun.IsEmpty() ? "(not found)" : kestrun.c_str());
  std::printf("version   %s\n", GetVersionString().c_str());
}

int WriteReport(const Options& options) {
  std::string error;
  if (options.recordToDraw == options.pageToWrite) {
    PrintError("the page would replace its record " + options.recordToDraw);
    return kExitFailure;
  }
  if (SaveReportPageOf(options.recordToDraw, options.pageToWrite, error)) return 0;
  PrintError(error);
  return kExitFailure;
}

// What was asked for has to arrive: a full disk behind the standard output is a failure.
int WithOutput(int exitCode) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exitCode;
  const platform::WriteFailure failure = platform::LastWriteFailure();
  // In `dorn --history | head -1` that is no error: the process ends as other programs do then.
  if (failure.isReaderGone) platform::EndWithoutReader();
  PrintError("cannot write to standard output: " + failure.cause);
  return kExitFailure;
}

int RunAction(const Options& options) {
  switch (options.action) {
    case Options::Action::kHelp:
      std::fputs(GetUsage(), stdout);
      return 0;
    case Options::Action::kVersion:
      std::puts(GetVersionString().c_str());
      return 0;
    case Options::Action::kWhere:
      PrintWhere();
      return 0;
    case Options::Action::kListSettings:
      return ListSettings();
    case Options::Action::kUpdateSettings:
      return UpdateSettings();
    case Options::Action::kReportFrom:
      return WriteReport(options);
    case Options::Action::kStatus:
      return RunStatus(options);
    case Options::Action::kHistory:
      return ListHistory();
    case Options::Action::kBuild:
      break;
  }
  return 0;
}

}  // namespace

}  // namespace kestrun::dorn

int main(int argc, char** argv) {
  using namespace kestrun;
  dorn::Options options;
  std::string error;
  if (!dorn::ParseOptions({argv + 1, argv + argc}, options, error)) {
    dorn::PrintError(error + "; dorn --help shows the options");
    return dorn::kExitFailure;
  }
  try {
    if (options.action == dorn::Options::Action::kBuild) return dorn::RunSession(options);
    return dorn::WithOutput(dorn::RunAction(options));
  } catch (const SystemException& exception) {
    // What lies behind the exception is then said already, in better words.
    if (platform::AreNamedObjectsRefused()) return dorn::kExitFailure;
    const i32 code = exception.GetCode();
    dorn::PrintError(exception.what() +
                     (code == SystemException::kNoCode ? "" : " (error " + std::to_string(code) + ")"));
    return dorn::kExitFailure;
  }
}
