#include "frontend/option_parser.h"

#include <cctype>
#include <cstdlib>

#include "frontend/command_line_tail.h"
#include "frontend/option_table.h"
#include "platform/host.h"

namespace kestrun {

namespace {

constexpr char kNothingToDo[] = "no tool is named, and no script";

bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

class Tokenizer {
 public:
  Tokenizer(const std::string& text, bool knowsEscapes) : text_(text), knowsEscapes_(knowsEscapes) {}

  bool AtEnd() const { return position_ >= text_.size(); }

  Token Next() {
    SkipSpace();
    Token token;
    token.quoted = !AtEnd() && text_[position_] == '"';
    if (token.quoted) ++position_;
    token.position = position_;
    while (!AtEnd() && !(token.quoted ? AtClosingQuote() : IsSpace(text_[position_]))) ++position_;
    token.text = text_.substr(token.position, position_ - token.position);
    // A quoted token that has no closing quote ends with the text.
    if (token.quoted && !AtEnd()) ++position_;
    SkipSpace();
    return token;
  }

 private:
  void SkipSpace() {
    while (!AtEnd() && IsSpace(text_[position_])) ++position_;
  }
  // A quote that more of the word follows does not end the token.
  bool AtClosingQuote() const {
    const bool isAtEnd = text_[position_] == '"' && (position_ + 1 == text_.size() || IsSpace(text_[position_ + 1]));
    return isAtEnd && !(knowsEscapes_ && IsEscaped());
  }
  bool IsEscaped() const {
    std::size_t first = position_;
    while (first > 0 && text_[first - 1] == '\\') --first;
    return (position_ - first) % 2 == 1;
  }

  const std::string& text_;
  const bool knowsEscapes_;
  std::size_t position_ = 0;
};

// Takes the token as the tool, and the rest of the text as its arguments. They begin at the quote of a quoted first
// argument, whose position is behind the quote, so that all of the user's quoting is kept.
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

// These forms do not run a tool, so a command line of options alone is complete.
bool NeedsNoTool(const Options& options) {
  return options.showVersion || options.showHelp || options.master || !options.scriptPath.empty();
}

std::string DescribeMissingTool(const std::string& word) {
  if (word.empty()) return "it holds nothing but blanks";
  if (word[0] == '-') return "\"" + word + "\" is no option of kestrun";
  return "\"" + word + "\" is no option; a tool stands on the command line";
}

TokenList Tokenize(const std::string& text, bool knowsEscapes) {
  TokenList list;
  list.source = text;
  Tokenizer tokenizer(text, knowsEscapes);
  while (!tokenizer.AtEnd()) list.tokens.push_back(tokenizer.Next());
  return list;
}

// Puts the tokens into the record. Empty, or the reason why they do not parse; options before the fault are set.
std::string FindFault(Options& options, const TokenList& list, bool fromEnvironment) {
  if (list.tokens.empty()) return fromEnvironment ? "" : kNothingToDo;
  for (std::size_t index = 0; index < list.tokens.size(); ++index) {
    const OptionRule* rule = FindRule(list.tokens[index].text);
    if (rule == nullptr) {
      // KESTRUN_OPTS holds options alone; the tool comes from the command line.
      if (fromEnvironment) return DescribeMissingTool(list.tokens[index].text);
      TakeTool(options, list, index);
      return "";
    }
    // The value is the next token whatever it looks like, also if it begins with "-".
    const bool isValueMissing = rule->TakesValue() && ++index == list.tokens.size();
    if (isValueMissing) return std::string(rule->name) + " wants a value behind it: " + rule->name + " " + rule->value;
    const std::string& value = list.tokens[index].text;
    if (!rule->set(options, value)) {
      return std::string(rule->name) + " wants " + rule->wanted + ", not \"" + value + "\"";
    }
  }
  return fromEnvironment || NeedsNoTool(options) ? "" : kNothingToDo;
}

}  // namespace

TokenList TokenizeCommandLine(const std::string& text) {
  return Tokenize(text, false);
}

TokenList TokenizeJoinedLine(const std::string& text, const std::vector<std::string>& words) {
  TokenList list = Tokenize(text, true);
  // With another number of tokens a token's position would belong to another word.
  if (list.tokens.size() != words.size()) return TokenizeCommandLine(text);
  for (std::size_t index = 0; index < words.size(); ++index) list.tokens[index].text = words[index];
  return list;
}

bool ParseOptions(Options& options, const std::string& text, bool fromEnvironment, std::string* cause) {
  return ParseOptions(options, TokenizeCommandLine(text), fromEnvironment, cause);
}

bool ParseOptions(Options& options, const TokenList& list, bool fromEnvironment, std::string* cause) {
  const std::string fault = FindFault(options, list, fromEnvironment);
  if (cause != nullptr) *cause = fault;
  return fault.empty();
}

void MergeOptions(Options& result, const Options& environment, const Options& commandLine) {
  result = environment;
  MergeByRules(result, commandLine);
  if (!commandLine.tool.empty()) result.tool = commandLine.tool;
  if (!commandLine.toolArgs.empty()) result.toolArgs = commandLine.toolArgs;
  result.wordsBeforeTool = commandLine.wordsBeforeTool;
  // A marker that only the environment gave has not been applied to the command line's arguments yet.
  ReplaceMarker(result.toolArgs, result.marker);
}

OptionsFault ReadOptions(const std::string& commandLine, const std::vector<std::string>& words, Options& options,
                         std::string* cause) {
  Options fromEnvironment;
  const char* const text = std::getenv(kOptionsVariable);
  if (text != nullptr && !ParseOptions(fromEnvironment, text, true, cause)) return OptionsFault::kEnvironment;
  Options fromCommandLine;
  const std::string tail = GetCommandLineTail(commandLine);
  const TokenList list = platform::kCommandLineIsJoined ? TokenizeJoinedLine(tail, words) : TokenizeCommandLine(tail);
  if (!ParseOptions(fromCommandLine, list, false, cause)) return OptionsFault::kCommandLine;
  MergeOptions(options, fromEnvironment, fromCommandLine);
  return OptionsFault::kNone;
}

}  // namespace kestrun
