// Parses job scripts; docs/job-scripts.md has the grammar for users. Pure functions from text to a list of jobs:
// nothing is looked up, opened or sent here.
#ifndef KESTRUN_CLIENT_JOB_SCRIPT_H_
#define KESTRUN_CLIENT_JOB_SCRIPT_H_

#include <string>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun {

struct ScriptJob {
  std::string tool;
  std::string arguments;
  u32 line = 0;          // where it begins, from 1
  std::string echoText;  // the echo lines above the job, each with CR LF behind it
};

// Replaces each %NAME% by the variable's value. A value is not scanned again; an unknown name stays, and its closing
// '%' opens no new one.
std::string ExpandScriptVariables(const std::string& text);

// The jobs of a script in file order. Every line, with those that it is continued by, is blank, a
// comment, an echo or a job, so that no text is refused. Echo
// lines behind the last job are dropped.
std::vector<ScriptJob> ParseJobScript(const std::string& text);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_JOB_SCRIPT_H_
