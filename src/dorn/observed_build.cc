#include "dorn/observed_build.h"

#include <cstdio>

#include "dorn/command_line.h"
#include "dorn/history.h"
#include "dorn/output_file.h"
#include "dorn/report.h"
#include "dorn/report_page.h"
#include "dorn/summary.h"
#include "platform/host.h"
#include "platform/terminal.h"
#include "runtime/files/path.h"

namespace kestrun::dorn {

namespace {

// "DORN: " stands in front of each line.
constexpr std::size_t kPrefixColumns = 6;
constexpr std::size_t kColumnsWithoutTerminal = 1000;

bool IsSummaryWanted(const Options& options, bool isOwnMaster) {
  if (options.summary != Options::Summary::kOnTerminal) return options.summary == Options::Summary::kAlways;
  return isOwnMaster && platform::IsTerminal(stderr);
}

std::string CurrentFolder() {
  char folder[4096];
  const DWORD length = GetCurrentDirectoryA(sizeof folder, folder);
  return length < sizeof folder ? std::string(folder, length) : "";
}

void WriteFileOf(const std::string& file, const std::string& text) {
  std::string error;
  if (!WriteOutputFile(Path(file), text, error)) PrintError(error);
}

}  // namespace

ObservedBuild::ObservedBuild(const Options& options, const std::string& masterId, bool isOwnMaster)
    : options_(options),
      isSummaryWanted_(IsSummaryWanted(options, isOwnMaster)),
      isHistoryWanted_(isOwnMaster && IsHistoryWanted()) {
  record_.startedUs = SteadyMicroseconds();
  record_.startedUnixUs = UnixMicroseconds();
  if (!IsWanted()) return;
  record_.command = JoinArguments(options.command);
  record_.folder = CurrentFolder();
  record_.host = platform::HostName();
  observer_ = std::make_unique<BuildObserver>();
  std::string error;
  if (observer_->Start(masterId, error)) return;
  observer_.reset();
  PrintWarning("this build is not observed: " + error);
}

void ObservedBuild::Report(int exitCode) {
  if (!observer_) return;
  // Taken first: Finish may wait a second for the master.
  record_.durationUs = SteadyMicroseconds() - record_.startedUs;
  record_.exitCode = exitCode;
  observer_->Finish(record_);
  observer_.reset();
  WriteFiles();
  if (isHistoryWanted_) AddToHistory(record_);
  if (isSummaryWanted_) PrintSummary();
}

void ObservedBuild::WriteFiles() const {
  if (!options_.recordFile.empty()) WriteFileOf(options_.recordFile, GetRecordText(record_));
  if (!options_.traceFile.empty()) WriteFileOf(options_.traceFile, GetTraceText(record_));
  if (!options_.reportFile.empty()) WriteFileOf(options_.reportFile, WriteReportPage(GetRecordText(record_)));
}

void ObservedBuild::PrintSummary() const {
  // A build without jobs has no summary. If one was asked for, most likely the build does not run its tools through
  // kestrun.
  if (record_.jobs.empty() && options_.summary == Options::Summary::kAlways) {
    Print("no tool went through kestrun: the build has to run its tools as kestrun <tool>");
  }
  const std::size_t columns = platform::GetTerminalSize(stderr).columns;
  for (const std::string& line :
       GetSummary(record_, columns > kPrefixColumns ? columns - kPrefixColumns : kColumnsWithoutTerminal)) {
    Print(line);
  }
}

}  // namespace kestrun::dorn
