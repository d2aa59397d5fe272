#include "frontend/option_parser.h"

#include <cctype>
#include <cstdlib>
#include <limits>

#include "protocol/protocol.h"
#include "runtime/text.h"

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

bool ParseTimeout(Options& options, const std::string& minutes) {
  if (!IsNumber(minutes)) return false;
  constexpr u64 kMax = std::numeric_limits<u32>::max();
  const u64 value = std::strtoull(minutes.c_str(), nullptr, 10);
  options.timeoutSeconds = static_cast<u32>(value > kMax / 60 ? kMax : value * 60);
  return true;
}

bool ParseMarker(Options& options, const std::string& marker) {
  options.marker = marker;
  return !marker.empty();
}

// The handle is stored as it comes: an event that isn't there counts as none given.
bool OpenNamedEvent(HANDLE& event, const std::string& name) {
  event = OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, TRUE, name.c_str());
  return true;
}

template <std::string Options::*field>
bool SetText(Options& options, const std::string& value) {
  options.*field = value;
  return true;
}
template <HANDLE Options::*field>
bool SetEvent(Options& options, const std::string& name) {
  return OpenNamedEvent(options.*field, name);
}
template <bool Options::*field>
void SetSwitch(Options& options) {
  options.*field = true;
}
template <u32 bit>
void SetFlag(Options& options) {
  options.flags |= bit;
}

// An option either sets something by itself or takes the next token as its value.
struct OptionRule {
  const char* name;
  void (*set)(Options&);
  bool (*take)(Options&, const std::string& value);
};

constexpr OptionRule kOptionRules[] = {
    {"--help", SetSwitch<&Options::showHelp>, nullptr},
    {"--version", SetSwitch<&Options::showVersion>, nullptr},
    {"-v", SetFlag<FLAG_VERBOSE>, nullptr},
    {"-t", nullptr, ParseTimeout},
    {"-n", nullptr, SetText<&Options::name>},
    {"-m", nullptr, ParseMarker},
    {"-s", nullptr, SetText<&Options::scriptPath>},
    {"-master", SetSwitch<&Options::master>, nullptr},
    {"-p", nullptr, SetText<&Options::project>},
    {"-e", SetSwitch<&Options::expandEnvironment>, nullptr},
    {"-es", nullptr, SetEvent<&Options::stopEvent>},
    {"-er", nullptr, SetEvent<&Options::readyEvent>},
    {"-ef", nullptr, SetEvent<&Options::finishEvent>},
    {"-id", nullptr, SetText<&Options::id>},
    {"-k", SetFlag<FLAG_KEEP_GOING>, nullptr},
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

void TakeText(std::string& field, const std::string& value) {
  if (!value.empty()) field = value;
}
void TakeEvent(HANDLE& field, HANDLE value) {
  if (value != nullptr) field = value;
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
    if (rule->set != nullptr) {
      rule->set(options);
    } else if (++index == list.tokens.size() || !rule->take(options, list.tokens[index].text)) {
      return false;
    }
  }
  return fromEnvironment || NeedsNoTool(options);
}

void MergeOptions(Options& result, const Options& environment, const Options& commandLine) {
  result = environment;
  if (commandLine.timeoutSeconds != 0) result.timeoutSeconds = commandLine.timeoutSeconds;
  TakeText(result.name, commandLine.name);
  TakeText(result.tool, commandLine.tool);
  TakeText(result.toolArgs, commandLine.toolArgs);
  TakeText(result.scriptPath, commandLine.scriptPath);
  TakeText(result.id, commandLine.id);
  TakeText(result.project, commandLine.project);
  result.showVersion |= commandLine.showVersion;
  result.showHelp |= commandLine.showHelp;
  result.expandEnvironment |= commandLine.expandEnvironment;
  TakeEvent(result.stopEvent, commandLine.stopEvent);
  TakeEvent(result.readyEvent, commandLine.readyEvent);
  TakeEvent(result.finishEvent, commandLine.finishEvent);
  if (commandLine.marker != kDefaultMarker) result.marker = commandLine.marker;
  result.master |= commandLine.master;
  result.flags |= commandLine.flags;
  // A marker that only the environment gave has not been applied to the command line's arguments yet.
  ReplaceMarker(result.toolArgs, result.marker);
}

}  // namespace kestrun
