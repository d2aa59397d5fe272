// What the user asks of dorn: dorn [--id ID] [--] <build command> [args].
#ifndef KESTRUN_DORN_OPTIONS_H_
#define KESTRUN_DORN_OPTIONS_H_

#include <string>
#include <vector>

namespace kestrun::dorn {

struct Options {
  std::string id;  // empty: one that no other build uses
  bool showHelp = false;
  bool showVersion = false;
  std::vector<std::string> command;  // the build command and its arguments, as they are
};

// Reads the arguments behind the program's name; options end at "--" or at the first word that is none. False, with
// the reason in `error`, for an unknown option, a bad id, or no command where one is needed.
bool ParseOptions(const std::vector<std::string>& arguments, Options& options, std::string& error);

// The text of --help.
const char* GetUsage();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_OPTIONS_H_
