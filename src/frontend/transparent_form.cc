#include "frontend/transparent_form.h"

#include <cstdlib>

#include "client/transparent_tool.h"
#include "frontend/option_parser.h"
#include "frontend/usage.h"
#include "platform/tool_process.h"

namespace kestrun {

namespace {

constexpr std::size_t kLongestId = 255;

bool NamesToolAlone(const Options& options) {
  return !options.tool.empty() && !options.showHelp && !options.showVersion && !options.master &&
         options.scriptPath.empty();
}

}  // namespace

std::string GetInheritedId(const Options& options) {
  if (!options.id.empty()) return options.id;
  const char* const inherited = std::getenv("KESTRUN_ID");
  const std::string id = inherited != nullptr ? inherited : "";
  return id.size() <= kLongestId ? id : "";
}

std::vector<std::string> GetToolWords(const Options& options, int argc, const char* const* argv) {
  const int index = static_cast<int>(options.wordsBeforeTool) + 1;
  // The words are split by the system's rules and the options by our own; where the two disagree, in odd quoting, the
  // words of the tool can't be told.
  if (index >= argc || options.tool != argv[index]) return {};
  return {argv + index, argv + argc};
}

bool RunTransparently(const std::string& commandLine, int argc, const char* const* argv, int& exitCode) {
  Options options;
  if (ReadOptions(commandLine, options) != OptionsFault::kNone || !NamesToolAlone(options)) return false;
  // A time limit is a setting's business.
  if (options.timeoutSeconds != 0) return false;
  const std::string id = GetInheritedId(options);
  if (id.empty()) return false;
  TransparentTool tool(options, GetToolWords(options, argc, argv));
  if (tool.RunInSlot(id, exitCode) != TransparentTool::Outcome::kDone) return false;
  if (exitCode == platform::kExitNotFound) ExplainWrongOption(options.tool);
  return true;
}

}  // namespace kestrun
