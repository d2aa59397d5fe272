#include "frontend/option_parser.h"

#include <cctype>
#include <cstdlib>
#include <limits>

#include "frontend/command_line_tail.h"
#include "protocol/protocol.h"
#include "runtime/base/text.h"

namespace kestrun {

namespace {

bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

class Tokenizer {
 public:
  explicit Tokenizer(const std::string& text) : text_(text) {}

  bool AtEnd() const { return position_ >= text_.size(); }

  Token Next() {
    SkipSpace();
    Token token;
    token.quoted = !AtEnd() && text_[position_] == '"';
    if (token.quoted) ++position_;
    token.position = position_;
    while (!AtEnd() && !(token.quoted ? AtClosingQuote() : IsSpace(text_[position_]))) ++position_;
    token.text = text_.substr(token.position, position_ - token.position);
    if (token.quoted && !AtEnd()) ++position_;
    SkipSpace();
    return token;
  }

 private:
  void SkipSpace() {
    while (!AtEnd() && IsSpace(text_[position_])) ++position_;
  }
  bool AtClosingQuote() const {
    return text_[position_] == '"' && (position_ + 1 == text_.size() || IsSpace(text_[position_ + 1]));
  }

  const std::string& text_;
  std::size_t position_ = 0;
};

// The kinds of options. Each tells whether the next token is the option's value, how the value gets into the record
// (false if it is a bad one), and how the command line's record is put over the environment's.

template <std::string Options::*field>
struct Text {
  static constexpr bool kTakesValue = true;
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
  static constexpr bool kTakesValue = false;
  static bool Set(Options& options, const std::string&) {
    options.*field = true;
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) { result.*field |= commandLine.*field; }
};

template <u32 bit>
struct Flag {
  static constexpr bool kTakesValue = false;
  static bool Set(Options& options, const std::string&) {
    options.flags |= bit;
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) { result.flags |= commandLine.flags & bit; }
};

struct Timeout {
  static constexpr bool kTakesValue = true;
  static bool Set(Options& options, const std::string& minutes) {
    if (!IsNumber(minutes)) return false;
    constexpr u64 kMax = std::numeric_limits<u32>::max();
    const u64 value = std::strtoull(minutes.c_str(), nullptr, 10);
    options.timeoutSeconds = static_cast<u32>(value > kMax / 60 ? kMax : value * 60);
    return true;
  }
  static void Merge(Options& result, const Options& commandLine) {
    if (commandLine.timeoutSeconds != 0) result.timeoutSeconds = commandLine.timeoutSeconds;
  }
};

struct Marker {
  static constexpr bool kTakesValue = true;
  static bool Set(Options& options, const std::string& marker) {
    options.marker = marker;
    return !marker.empty();
  }
  static void Merge(Options& result, const Options& commandLine) {
    if (commandLine.marker != kDefaultMarker) result.marker = commandLine.marker;
  }
};

struct OptionRule {
  const char* name;
  bool takesValue;
  bool (*set)(Options& options, const std::string& value);
  void (*merge)(Options& result, const Options& commandLine);
};

template <class Kind>
constexpr OptionRule Rule(const char* name) {
  return {name, Kind::kTakesValue, Kind::Set, Kind::Merge};
}

constexpr OptionRule kOptionRules[] = {
    Rule<Switch<&Options::showHelp>>("--help"),
    Rule<Switch<&Options::showVersion>>("--version"),
    Rule<Flag<FLAG_VERBOSE>>("-v"),
    Rule<Timeout>("-t"),
    Rule<Text<&Options::name>>("-n"),
    Rule<Marker>("-m"),
    Rule<Text<&Options::scriptPath>>("-s"),
    Rule<Switch<&Options::master>>("-master"),
    // The command line's project is never empty unless it says so, so that its default beats the environment.
    Rule<Text<&Options::project>>("-p"),
    Rule<Switch<&Options::expandEnvironment>>("-e"),
    Rule<Text<&Options::stopEvent>>("-es"),
    Rule<Text<&Options::readyEvent>>("-er"),
    Rule<Text<&Options::finishEvent>>("-ef"),
    Rule<Text<&Options::id>>("-id"),
    Rule<Flag<FLAG_KEEP_GOING>>("-k"),
};

const OptionRule* FindRule(const std::string& text) {
  for (const OptionRule& rule : kOptionRules) {
    if (text == rule.name) return &rule;
  }
  return nullptr;
}

// The arguments begin at the quote of a quoted first argument, so that all the user's quoting stays.
void TakeTool(Options& options, const TokenList& list, std::size_t index) {
  options.tool = list.tokens[index].text;
  options.wordsBeforeTool = static_cast<u32>(index);
  options.toolArgs.clear();
  if (index + 1 < list.tokens.size()) {
    const Token& first = list.tokens[index + 1];
    options.toolArgs = list.source.substr(first.position - (first.quoted ? 1 : 0));
  }
  ReplaceMarker(options.toolArgs, options.marker);
}

bool NeedsNoTool(const Options& options) {
  return options.showVersion || options.showHelp || options.master || !options.scriptPath.empty();
}

}  // namespace

TokenList TokenizeCommandLine(const std::string& text) {
  TokenList list;
  list.source = text;
  Tokenizer tokenizer(text);
  while (!tokenizer.AtEnd()) list.tokens.push_back(tokenizer.Next());
  return list;
}

bool ParseOptions(Options& options, const std::string& text, bool fromEnvironment) {
  const TokenList list = TokenizeCommandLine(text);
  if (list.tokens.empty()) return fromEnvironment;
  for (std::size_t index = 0; index < list.tokens.size(); ++index) {
    const OptionRule* rule = FindRule(list.tokens[index].text);
    if (rule == nullptr) {
      if (fromEnvironment) return false;
      TakeTool(options, list, index);
      return true;
    }
    if (rule->takesValue && ++index == list.tokens.size()) return false;
    if (!rule->set(options, list.tokens[index].text)) return false;
  }
  return fromEnvironment || NeedsNoTool(options);
}

void MergeOptions(Options& result, const Options& environment, const Options& commandLine) {
  result = environment;
  for (const OptionRule& rule : kOptionRules) rule.merge(result, commandLine);
  Text<&Options::tool>::Merge(result, commandLine);
  Text<&Options::toolArgs>::Merge(result, commandLine);
  result.wordsBeforeTool = commandLine.wordsBeforeTool;
  // A marker that only the environment gave has not been applied to the command line's arguments yet.
  ReplaceMarker(result.toolArgs, result.marker);
}

OptionsFault ReadOptions(const std::string& commandLine, Options& options) {
  Options fromEnvironment;
  const char* const text = std::getenv("KESTRUN_OPTS");
  if (text != nullptr && !ParseOptions(fromEnvironment, text, true)) return OptionsFault::kEnvironment;
  Options fromCommandLine;
  if (!ParseOptions(fromCommandLine, GetCommandLineTail(commandLine), false)) return OptionsFault::kCommandLine;
  MergeOptions(options, fromEnvironment, fromCommandLine);
  return OptionsFault::kNone;
}

}  // namespace kestrun
