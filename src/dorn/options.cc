#include "dorn/options.h"

#include <algorithm>
#include <cstring>

namespace kestrun::dorn {

namespace {

constexpr std::size_t kLongestId = 99;

// The id becomes part of the names of kernel objects and stands on the master's command line.
bool IsUsableId(const std::string& id) {
  const auto isUsable = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || std::strchr("._-", c);
  };
  return !id.empty() && id.size() <= kLongestId && std::all_of(id.begin(), id.end(), isUsable);
}

}  // namespace

bool ParseOptions(const std::vector<std::string>& arguments, Options& options, std::string& error) {
  std::size_t at = 0;
  for (; at < arguments.size(); ++at) {
    const std::string& word = arguments[at];
    if (word == "--help" || word == "-h") {
      options.showHelp = true;
    } else if (word == "--version") {
      options.showVersion = true;
    } else if (word == "--id") {
      options.id = ++at < arguments.size() ? arguments[at] : std::string();
      if (!IsUsableId(options.id)) {
        error = "--id wants 1 to 99 letters, digits, \".\", \"_\" or \"-\"";
        return false;
      }
    } else if (word == "--") {
      ++at;
      break;
    } else if (word.size() > 1 && word[0] == '-') {
      error = "unknown option " + word;
      return false;
    } else {
      break;
    }
  }
  options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(std::min(at, arguments.size())),
                         arguments.end());
  if (options.showHelp || options.showVersion) return true;
  if (options.command.empty() || options.command[0].empty()) {
    error = "no build command";
    return false;
  }
  return true;
}

const char* GetUsage() {
  return "usage: dorn [--id ID] [--] <build command> [args]\n"
         "Starts a Kestrun master, runs the build command under it, ends the master, and exits with the\n"
         "build command's exit code. Every tool that the build runs as \"kestrun <tool> [args]\" goes through\n"
         "the master:\n"
         "    dorn make -j8 CC=\"kestrun gcc\"\n"
         "Options:\n"
         "   --id ID     - the master's id; without it one that no other build uses\n"
         "   --help      - print this message and exit\n"
         "   --version   - print version information and exit\n";
}

}  // namespace kestrun::dorn
