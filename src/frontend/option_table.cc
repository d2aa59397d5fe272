#include "frontend/option_table.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "protocol/protocol.h"
#include "runtime/base/text.h"

namespace kestrun {

namespace {

// The kinds of options. Each tells how the value gets into the record (false if it is a bad one), and how the command
// line's record is put over the environment's.

template <std::string Options::*field>
struct Text {
  static bool Set(Options& options, const std::string& value) {
    options.*field = value;
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) {
    if (!(commandLine.*field).empty()) result.*field = commandLine.*field;
  }
};

template <bool Options::*field>
struct Switch {
  static bool Set(Options& options, const std::string&) {
    options.*field = true;
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) { result.*field |= commandLine.*field; }
};

template <u32 bit>
struct Flag {
  static bool Set(Options& options, const std::string&) {
    options.flags |= bit;
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) { result.flags |= commandLine.flags & bit; }
};

struct Timeout {
  static bool Set(Options& options, const std::string& minutes) {
    if (!IsNumber(minutes)) return false;
    constexpr u64 kMax = std::numeric_limits<u32>::max();
    // A number that is too large becomes the largest limit, which the master takes for none.
    const u64 value = std::strtoull(minutes.c_str(), nullptr, 10);
    options.timeoutSeconds = static_cast<u32>(value > kMax / 60 ? kMax : value * 60);
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) {
    if (commandLine.timeoutSeconds != 0) result.timeoutSeconds = commandLine.timeoutSeconds;
  }
};

// The default stands for "not given": a command line that gives the default itself does not override the environment.
struct Marker {
  static bool Set(Options& options, const std::string& marker) {
    options.marker = marker;
    return !marker.empty();
  }
  static void Merge(Options& result, const Options& commandLine) {
    if (commandLine.marker != kDefaultMarker) result.marker = commandLine.marker;
  }
};

template <class Kind>
constexpr OptionRule Rule(const char* name, const char* value, OptionRule::Reader reader, const char* meaning,
                          const char* wanted = "") {
  return {name, value, meaning, wanted, reader, Kind::Set, Kind::Merge};
}

constexpr OptionRule Unsupported(const char* name, const char* meaning) {
  return {name, "", meaning, "", OptionRule::Reader::kNone, nullptr, nullptr};
}

constexpr auto kUser = OptionRule::Reader::kUser;
constexpr auto kScripts = OptionRule::Reader::kScripts;
constexpr auto kIntegration = OptionRule::Reader::kIntegration;

// In the order of the help texts. The reader decides which of the texts shows an option.
constexpr OptionRule kOptionRules[] = {
    Rule<Switch<&Options::showHelp>>("--help", "", kUser, "print this message and exit"),
    Rule<Switch<&Options::showVersion>>("--version", "", kUser, "print version information and exit"),
    Rule<Flag<FLAG_VERBOSE>>("-v", "", kUser, "verbose warnings"),
    Rule<Timeout>("-t", "<timeout>", kUser, "timeout of job in minutes", "a number of minutes"),
    Rule<Text<&Options::name>>("-n", "<name>", kUser, "name of the job (for display in UI)"),
    Unsupported("-ch", "show cache hits"),
    Unsupported("-chx", "show cache hits with extra information"),
    Rule<Marker>("-m", "<marker>", kUser, "use <marker> instead of $ as the special character",
                 "at least one character"),
    Unsupported("-na", "do not use alternative (slower) dependency-tracking"),
    Unsupported("-aa", "always use alternative dependency tracking for problematic files"),
    Unsupported("-wa", "warn about use of alternative (slower) dependency-tracking"),
    Unsupported("-wi", "warn about use of unresolvable #include statements"),
    Unsupported("-gt", "allow generic tools (those without tool-definitions)"),
    Unsupported("-l", "schedules the job locally"),
    // The command line's project is never empty unless it says so, so that its default beats the environment.
    Rule<Text<&Options::project>>("-p", "<name>", kUser, "the name of the project this job or script belongs to"),
    Rule<Flag<FLAG_KEEP_GOING>>("-k", "", kUser, "keep going on errors"),
    Unsupported("-di", "prints out the discovered dependency tree"),
    Rule<Switch<&Options::expandEnvironment>>("-e", "", kUser, "expand environment variables in scripts"),
    Rule<Text<&Options::scriptPath>>("-s", "<script>", kScripts,
                                     "run a job script: one tool with its arguments a line"),
    Rule<Switch<&Options::master>>("-master", "", kIntegration, "be the master"),
    Rule<Text<&Options::id>>("-id", "<id>", kIntegration, "the master that is meant, or that this one is to be"),
    Rule<Text<&Options::readyEvent>>("-er", "<event>", kIntegration, "the master signals this event when it is ready"),
    Rule<Text<&Options::stopEvent>>("-es", "<event>", kIntegration, "this event tells the master to stop"),
    Rule<Text<&Options::finishEvent>>("-ef", "<event>", kIntegration,
                                      "this event tells the master that the build is over"),
};

static_assert(std::ranges::all_of(kOptionRules, [](const OptionRule& rule) { return *rule.name == kOptionMark; }));

}  // namespace

const OptionRule* FindRule(const std::string& text) {
  for (const OptionRule& rule : kOptionRules) {
    // An unsupported option is not found, so the parser takes it for the tool; ExplainWrongOption then says so.
    if (rule.set != nullptr && text == rule.name) return &rule;
  }
  return nullptr;
}

void MergeByRules(Options& result, const Options& commandLine) {
  for (const OptionRule& rule : kOptionRules) {
    if (rule.merge != nullptr) rule.merge(result, commandLine);
  }
}

std::vector<const OptionRule*> ListRules(std::initializer_list<OptionRule::Reader> readers) {
  std::vector<const OptionRule*> rules;
  for (const OptionRule& rule : kOptionRules) {
    if (std::find(readers.begin(), readers.end(), rule.reader) != readers.end()) rules.push_back(&rule);
  }
  return rules;
}

}  // namespace kestrun
