#include "dorn/options.h"

#include <algorithm>
#include <cstring>

#include "protocol/limits.h"
#include "runtime/base/text.h"

namespace kestrun::dorn {

namespace {

constexpr std::size_t kLongestId = 99;
// So many digits always fit, so that std::stoul does not throw.
constexpr std::size_t kMostDigits = 9;

class Parser {
 public:
  Parser(const std::vector<std::string>& words, Options& options) : words_(words), options_(options) {}

  // Empty, or the reason.
  std::string Run() {
    // The first word that is no option is the build command; all behind it, options or not, belongs to the command. A
    // single "-" is such a word.
    while (at_ < words_.size() && words_[at_].size() > 1 && words_[at_][0] == '-') {
      const std::string& word = words_[at_++];
      if (word == "--") break;
      const std::string error = Take(word);
      if (!error.empty()) return error;
    }
    options_.command.assign(words_.begin() + static_cast<std::ptrdiff_t>(at_), words_.end());
    return CheckCommand();
  }

 private:
  std::string Take(const std::string& word) {
    using Action = Options::Action;
    if (word == "--help" || word == "-h") return Choose(Action::kHelp);
    if (word == "--version") return Choose(Action::kVersion);
    if (word == "--where") return Choose(Action::kWhere);
    if (word == "--status") return Choose(Action::kStatus);
    if (word == "--history") return Choose(Action::kHistory);
    if (word == "--settings") return TakeSettings();
    if (word == "--report-from") return TakeReportFrom();
    if (word == "--trace") return TakeFile(word, options_.traceFile);
    if (word == "--record") return TakeFile(word, options_.recordFile);
    if (word == "--report") return TakeFile(word, options_.reportFile);
    if (word == "--id") return TakeId();
    if (word == "-j") return TakeJobs(Next());
    if (word.compare(0, 2, "-j") == 0) return TakeJobs(word.substr(2));
    return TakeSwitch(word) ? "" : "unknown option " + word;
  }

  bool TakeSwitch(const std::string& word) {
    if (word == "--alone") {
      options_.isAlone = true;
    } else if (word == "--json") {
      options_.isJson = true;
    } else if (word == "--watch") {
      options_.isWatch = true;
    } else if (word == "--summary" || word == "--no-summary") {
      options_.summary = word == "--summary" ? Options::Summary::kAlways : Options::Summary::kNever;
    } else {
      return false;
    }
    return true;
  }

  std::string TakeFile(const std::string& option, std::string& file) {
    file = Next();
    return file.empty() ? option + " wants the name of a file" : "";
  }

  // Of several actions the first one is taken.
  std::string Choose(Options::Action action) {
    if (options_.action == Options::Action::kBuild) options_.action = action;
    return "";
  }

  std::string TakeSettings() {
    if (at_ == words_.size()) return Choose(Options::Action::kListSettings);
    if (Next() == "update" && at_ == words_.size()) return Choose(Options::Action::kUpdateSettings);
    return "--settings stands alone, or with the word update";
  }

  std::string TakeReportFrom() {
    options_.recordToDraw = Next();
    options_.pageToWrite = Next();
    if (options_.pageToWrite.empty() || at_ != words_.size())
      return "--report-from wants a build record and a page to write";
    return Choose(Options::Action::kReportFrom);
  }

  std::string TakeId() {
    options_.id = Next();
    return IsUsableId(options_.id) ? "" : "--id wants 1 to 99 letters, digits, \".\", \"_\" or \"-\"";
  }

  std::string TakeJobs(const std::string& text) {
    const bool isNumber = !text.empty() && text.size() <= kMostDigits && IsNumber(text);
    options_.jobs = isNumber ? static_cast<u32>(std::stoul(text)) : 0;
    if (options_.jobs >= 1 && options_.jobs <= kMostConcurrentJobs) return "";
    return "-j wants a number from 1 to " + std::to_string(kMostConcurrentJobs);
  }

  std::string Next() { return at_ < words_.size() ? words_[at_++] : std::string(); }

  std::string CheckCommand() const {
    if ((options_.isJson || options_.isWatch) && options_.action != Options::Action::kStatus) {
      return "--json and --watch belong to --status";
    }
    if (options_.action != Options::Action::kBuild) {
      return options_.command.empty() ? "" : "\"" + options_.command[0] + "\" stands where no build is run";
    }
    return options_.command.empty() || options_.command[0].empty() ? "no build command" : "";
  }

  const std::vector<std::string>& words_;
  Options& options_;
  std::size_t at_ = 0;
};

}  // namespace

bool ParseOptions(const std::vector<std::string>& arguments, Options& options, std::string& error) {
  error = Parser(arguments, options).Run();
  return error.empty();
}

bool IsUsableId(const std::string& id) {
  const auto isUsable = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || std::strchr("._-", c);
  };
  return !id.empty() && id.size() <= kLongestId && std::all_of(id.begin(), id.end(), isUsable);
}

const char* GetUsage() {
  return "usage: dorn [options] [--] <build command> [args]\n"
         "Runs the build command under a Kestrun master and exits with the build command's exit code. Every\n"
         "tool that the build runs as \"kestrun <tool> [args]\" goes through the master, which limits how many\n"
         "run at once. The master is started if none runs, shared with the other builds of this user, and\n"
         "ended with the last of them.\n"
         "Options:\n"
         "   -j N               - how many tools run at once, in place of the settings' MaxConcurrentJobs\n"
         "   --alone            - a master of this build's own\n"
         "   --id ID            - the master's id; without it one that no other build uses\n"
         "   --status           - show the build of this user that runs now: what is done, runs and waits; with\n"
         "                        --json for programs, with --watch again and again until the build ends\n"
         "   --history          - show the builds of this user that are over, one line of JSON each\n"
         "   --summary          - print figures of the build at its end; so it is without this on a terminal\n"
         "   --no-summary       - print none\n"
         "   --trace FILE       - write when each job ran, for chrome://tracing, Perfetto and the like\n"
         "   --record FILE      - write all that is known of the build's jobs, as JSON\n"
         "   --report FILE      - draw what is known of the build's jobs as a page for a browser\n"
         "   --settings         - show all settings with their value, where it comes from and their meaning\n"
         "   --settings update  - add the recommended settings that the file lacks\n"
         "   --report-from RECORD.json FILE.html\n"
         "                      - draw the report page of a build record, and run nothing\n"
         "   --where            - show where settings, log and named objects are, and the version\n"
         "   --help             - print this message and exit\n"
         "   --version          - print version information and exit\n"
         "Examples:\n"
         "   dorn make -j8 CC=\"kestrun gcc\"\n"
         "   cmake -B build -DCMAKE_C_COMPILER_LAUNCHER=kestrun && dorn cmake --build build\n"
         "   dorn -j 4 ninja -j 100\n"
         "   dorn kestrun -s jobs.script\n";
}

}  // namespace kestrun::dorn
