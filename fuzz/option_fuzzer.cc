// Parses command lines of kestrun with KESTRUN_OPTS set: the text behind the tool stays as it is, byte for byte, except
// that no marker is left in it.
//
// Input: the text of KESTRUN_OPTS, the byte 0xFF, and the raw command line.
#include <string>

#include "frontend/command_line_tail.h"
#include "frontend/option_parser.h"
#include "fuzz_input.h"

namespace kestrun::fuzz {
namespace {

void CheckTokens(const std::string& text) {
  std::size_t end = 0;
  for (const Token& token : TokenizeCommandLine(text).tokens) {
    FUZZ_REQUIRE(token.position >= end && text.compare(token.position, token.text.size(), token.text) == 0);
    end = token.position + token.text.size();
  }
  FUZZ_REQUIRE(end <= text.size());
}

Options Parse(const std::string& text, bool fromEnvironment, bool& isParsed) {
  CheckTokens(text);
  Options options;
  isParsed = ParseOptions(options, text, fromEnvironment);
  return options;
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  using namespace kestrun::fuzz;
  Folder();
  Input input(data, size);
  bool isEnvironmentParsed = false;
  bool isLineParsed = false;
  const Options environment = Parse(input.Piece(), true, isEnvironmentParsed);
  const std::string line = input.Rest();
  const std::string tail = GetCommandLineTail(line);
  FUZZ_REQUIRE(tail.size() <= line.size() && line.substr(line.size() - tail.size()) == tail);
  const Options commandLine = Parse(tail, false, isLineParsed);
  FUZZ_REQUIRE(environment.tool.empty() && environment.toolArgs.empty());
  if (!isEnvironmentParsed || !isLineParsed) return 0;
  const std::string& arguments = commandLine.toolArgs;
  if (commandLine.marker == kDefaultMarker) {
    FUZZ_REQUIRE(arguments.size() <= tail.size() && tail.substr(tail.size() - arguments.size()) == arguments);
  }
  Options result;
  MergeOptions(result, environment, commandLine);
  FUZZ_REQUIRE(result.project == commandLine.project || commandLine.project.empty());
  FUZZ_REQUIRE(result.marker == kDefaultMarker || result.toolArgs.find(result.marker) == std::string::npos);
  return 0;
}
