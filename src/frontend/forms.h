// The forms that a process can take, and the choice of one.
#ifndef KESTRUN_FRONTEND_FORMS_H_
#define KESTRUN_FRONTEND_FORMS_H_

#include <string>

#include "frontend/transparent_form.h"
#include "runtime/files/ini_file.h"

namespace kestrun {

// Reads the options of KESTRUN_OPTS and of the command line, takes exactly one form (help, version, script, master,
// tool) and gives the exit code of the process. `commandLine` is the raw one, with the program's name; `argc` and
// `argv` are the same as single words, which only a tool that runs transparently is given. A SystemException of a stub
// ends here, as exit code 1; so does a success whose output could not be written.
// `transparent` is what RunTransparently gave before: a server that did not answer is not asked again.
int RunFrontEnd(int argc, const char* const* argv, const std::string& commandLine, IniFile& settings,
                TransparentRun transparent);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_FORMS_H_
