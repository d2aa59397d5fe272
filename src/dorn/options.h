// What the user asks of dorn: dorn [options] [--] <build command> [args].
#ifndef KESTRUN_DORN_OPTIONS_H_
#define KESTRUN_DORN_OPTIONS_H_

#include <string>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun::dorn {

struct Options {
  enum class Action {
    kBuild,
    kHelp,
    kVersion,
    kWhere,
    kListSettings,
    kUpdateSettings,
    kReportFrom,
    kStatus,
    kHistory,
  };

  enum class Summary {
    kOnTerminal,  // if the standard error stream is one
    kAlways,      // --summary
    kNever,       // --no-summary
  };

  Action action = Action::kBuild;
  std::string id;        // empty: one that no other build uses
  u32 jobs = 0;          // -j; 0: as the settings say
  bool isAlone = false;  // --alone
  bool isJson = false;   // --json, with --status
  bool isWatch = false;  // --watch, with --status
  Summary summary = Summary::kOnTerminal;
  std::string traceFile;             // --trace
  std::string recordFile;            // --record
  std::string reportFile;            // --report
  std::string recordToDraw;          // --report-from
  std::string pageToWrite;           // its second value
  std::vector<std::string> command;  // the build command and its arguments, as they are
};

// Reads the arguments behind the program's name; options end at "--" or at the first word that is none. False, with
// the reason in `error`, for an unknown option, a bad value, or no command where one is needed.
bool ParseOptions(const std::vector<std::string>& arguments, Options& options, std::string& error);

// The id becomes part of the names of kernel objects and stands on the master's command line.
bool IsUsableId(const std::string& id);

// The text of --help.
const char* GetUsage();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_OPTIONS_H_
