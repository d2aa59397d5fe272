// The help texts, made from the table of options.
#ifndef KESTRUN_FRONTEND_USAGE_H_
#define KESTRUN_FRONTEND_USAGE_H_

#include <string>

namespace kestrun {

// The version line and the options that are for users, on the standard output stream.
void PrintUsage();

// The text of --help all: what the program is for, what it guarantees, all options, the environment, and examples.
void PrintHelp();

// Called after the error that there is no such tool. If the tool's name looks like an option, writes a line about that
// to the standard error stream.
void ExplainWrongOption(const std::string& tool);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_USAGE_H_
