// Turns the raw text of a command line, or of KESTRUN_OPTS, into an Options record. The text behind the tool's name is
// handed on as the very bytes that the user typed. Nothing here prints: failures are bool results.
#ifndef KESTRUN_FRONTEND_OPTION_PARSER_H_
#define KESTRUN_FRONTEND_OPTION_PARSER_H_

#include <cstddef>
#include <string>
#include <vector>

#include "stubs/options.h"

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

// Fills the record from the text. False if the text does not parse: an option without its value, a bad number, an
// empty marker, a tool where none may stand (fromEnvironment), or nothing to do.
bool ParseOptions(Options& options, const std::string& text, bool fromEnvironment);

// The record that holds: what the command line gave, over what the environment gave. The project is the command
// line's in any case.
void MergeOptions(Options& result, const Options& environment, const Options& commandLine);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_OPTION_PARSER_H_
