// Turns the raw text of a command line, or of KESTRUN_OPTS, into an Options record. The text behind the tool's name is
// handed on as the very bytes that the user typed. Nothing here prints: failures are bool results.
#ifndef KESTRUN_FRONTEND_OPTION_PARSER_H_
#define KESTRUN_FRONTEND_OPTION_PARSER_H_

#include <cstddef>
#include <string>
#include <vector>

#include "app/options.h"

namespace kestrun {

struct Token {
  std::size_t position = 0;  // of the text in the source, behind an opening quote if there is one
  std::string text;
  bool quoted = false;
};

struct TokenList {
  std::string source;
  std::vector<Token> tokens;
};

// Splits at whitespace. A token that begins with a quote ends at the next quote that whitespace or the end follows;
// any other quote is an ordinary character, and there is no escape. A text of whitespace only gives one empty token.
TokenList TokenizeCommandLine(const std::string& text);

// The same for a text that was put together from `words` (platform::kCommandLineIsJoined): each token is a word as it
// is, whatever quotes it holds, and stands where that word is written.
TokenList TokenizeJoinedLine(const std::string& text, const std::vector<std::string>& words);

// Fills the record from the text. False if the text does not parse: an option without its value, a bad number, an
// empty marker, a tool where none may stand (fromEnvironment), or nothing to do. `cause`, which may be null, tells
// which.
bool ParseOptions(Options& options, const std::string& text, bool fromEnvironment, std::string* cause = nullptr);
bool ParseOptions(Options& options, const TokenList& list, bool fromEnvironment, std::string* cause = nullptr);

// The record to work with: what the command line gave, put over what the environment gave, by the same table that
// parses them. Empty texts, a time limit of 0 and the default marker override nothing. The project of the environment
// holds only where the command line says -p "". The marker that results is applied to the tool's arguments.
void MergeOptions(Options& result, const Options& environment, const Options& commandLine);

inline constexpr char kOptionsVariable[] = "KESTRUN_OPTS";

// Which text of a process does not parse.
enum class OptionsFault { kNone, kEnvironment, kCommandLine };

// Both texts of a process: that of kOptionsVariable, and the command line with the program's name. `words` are those
// behind the name. Prints nothing.
OptionsFault ReadOptions(const std::string& commandLine, const std::vector<std::string>& words, Options& options,
                         std::string* cause = nullptr);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_OPTION_PARSER_H_
