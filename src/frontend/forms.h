// The forms that a process can take, and the choice of one.
#ifndef KESTRUN_FRONTEND_FORMS_H_
#define KESTRUN_FRONTEND_FORMS_H_

#include <string>

#include "runtime/ini_file.h"

namespace kestrun {

// Reads the options of KESTRUN_OPTS and of the command line, takes exactly one form (help, version, script, master,
// tool) and gives the exit code of the process. `commandLine` is the raw one, with the program's name; `argc` only
// tells whether there is anything behind that name. A SystemException of a stub ends here, as exit code 1.
int RunFrontEnd(int argc, const std::string& commandLine, IniFile& settings);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_FORMS_H_
