#include "frontend/transparent_form.h"

#include <algorithm>

#include "app/stub_base.h"
#include "client/transparent_tool.h"
#include "frontend/option_parser.h"
#include "frontend/usage.h"
#include "platform/tool_process.h"

namespace kestrun {

namespace {

bool NamesToolAlone(const Options& options) {
  return !options.tool.empty() && !options.showHelp && !options.showVersion && !options.master &&
         options.scriptPath.empty();
}

}  // namespace

std::vector<std::string> GetWords(int argc, const char* const* argv) {
  return {argv + std::min(argc, 1), argv + argc};
}

std::vector<std::string> GetToolWords(const Options& options, int argc, const char* const* argv) {
  const int index = static_cast<int>(options.wordsBeforeTool) + 1;
  // argv was split by the system's rules, and the options by the parser's own. With unusual quoting the two disagree,
  // and the index of the tool means nothing in argv.
  if (index >= argc || options.tool != argv[index]) return {};
  return {argv + index, argv + argc};
}

TransparentRun RunTransparently(const std::string& commandLine, int argc, const char* const* argv, int& exitCode) {
  Options options;
  const bool isRead = ReadOptions(commandLine, GetWords(argc, argv), options) == OptionsFault::kNone;
  // A time limit only counts with Extensions/EnforceJobTimeout, and the settings have not been read yet.
  if (!isRead || !NamesToolAlone(options) || options.timeoutSeconds != 0) return TransparentRun::kNotAsked;
  const std::string id = GetBuildId(options);
  if (id.empty()) return TransparentRun::kNoServer;
  TransparentTool tool(options, GetToolWords(options, argc, argv));
  if (tool.RunInSlot(id, exitCode) != TransparentTool::Outcome::kDone) return TransparentRun::kNoServer;
  if (exitCode == platform::kExitNotFound) ExplainWrongOption(options.tool);
  return TransparentRun::kDone;
}

}  // namespace kestrun
