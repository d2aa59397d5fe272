#include "frontend/usage.h"

#include "app/console.h"
#include "frontend/option_table.h"
#include "runtime/files/version_string.h"

namespace kestrun {

namespace {

using Reader = OptionRule::Reader;

constexpr std::size_t kNameWidth = 15;

constexpr char kForms[] =
    "usage: kestrun [options] <tool> [args]      run one tool\n"
    "       kestrun [options] -s <script>        run a job script\n"
    "       kestrun --help | --help all | --version\n"
    "\n"
    "Kestrun stands between a build and its tools. \"dorn <build command>\" starts a master, runs the build and\n"
    "ends the master again; each tool that the build runs as \"kestrun <tool> [args]\" waits for one of the\n"
    "master's slots and then runs as it would without Kestrun.\n"
    "\n"
    "What holds, with the settings that dorn writes first:\n"
    "   - All builds of a user that run at once share one limit on running tools, whatever -j says.\n"
    "   - A tool has the streams, terminal, environment and exit code that it would have without Kestrun.\n"
    "   - When dorn ends, in whichever way, nothing that its build started is left running.\n"
    "   - Without a master a tool runs at once, as if kestrun did not stand before it.\n"
    "   - Nothing is cached, and nothing runs on another machine.\n";

constexpr char kRest[] =
    "\n"
    "An option is a word of its own and stands before the tool; its value is the next word. What follows the\n"
    "tool belongs to the tool.\n"
    "\n"
    "Environment:\n"
    "   KESTRUN_OPTS    - options that are read before those of the command line\n"
    "   KESTRUN_ID      - the master that a client belongs to; dorn sets it\n"
    "   KESTRUN_PROJECT - the project, in place of -p\n"
    "   KESTRUN_LOG     - a file for the log\n"
    "   RV_COMMON_PATH  - the folder above DORN, where settings and log are: dorn --where shows it\n"
    "\n"
    "Exit code: that of the tool; 127 and 126 if it is not there or can't be run; 124 after the time of -t; 1 for\n"
    "what Kestrun could not do. Of a script: 0 if all of its jobs gave 0.\n"
    "\n"
    "Examples:\n"
    "   dorn make -j8 CC=\"kestrun gcc\"\n"
    "   cmake -B build -DCMAKE_C_COMPILER_LAUNCHER=kestrun && dorn cmake --build build\n"
    "   dorn kestrun -s jobs.script\n"
    "   dorn kestrun -t 10 ./run-tests        ended after ten minutes, with all that it started\n"
    "\n"
    "More: dorn --help, the man pages kestrun(1) and dorn(1), and the pages beside the README.\n";

std::string Describe(const OptionRule& rule) {
  std::string name = rule.name;
  if (rule.TakesValue()) name += std::string(" ") + rule.value;
  if (name.size() < kNameWidth) name.resize(kNameWidth, ' ');
  return "   " + name + " - " + rule.meaning + "\n";
}

std::string DescribeAll(std::initializer_list<Reader> readers) {
  std::string text;
  for (const OptionRule* rule : ListRules(readers)) text += Describe(*rule);
  return text;
}

bool IsUnsupported(const std::string& name) {
  for (const OptionRule* rule : ListRules({Reader::kNone})) {
    if (name == rule->name) return true;
  }
  return false;
}

}  // namespace

void PrintUsage() {
  WriteStandardOutput(GetVersionString() + "\nusage: Kestrun [options] <tool> [args]\nOptions:\n" +
                      DescribeAll({Reader::kUser, Reader::kNone}));
}

void PrintHelp() {
  WriteStandardOutput(GetVersionString() + "\n" + kForms + "\nOptions:\n" +
                      DescribeAll({Reader::kUser, Reader::kScripts}) + "Options for programs that start a master:\n" +
                      DescribeAll({Reader::kIntegration}) + "Told by --help, but not in this version:\n" +
                      DescribeAll({Reader::kNone}) + kRest);
}

void ExplainWrongOption(const std::string& tool) {
  if (tool.empty() || tool[0] != '-') return;
  const char* const what =
      IsUnsupported(tool) ? "\" is an option that this version does not have" : "\" is no option of kestrun";
  WriteStandardError("KESTRUN: \"" + tool + what +
                     ", and so was taken for the tool; kestrun --help all tells the options\n");
}

}  // namespace kestrun
