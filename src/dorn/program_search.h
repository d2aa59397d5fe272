// Where the two programs are that dorn starts.
#ifndef KESTRUN_DORN_PROGRAM_SEARCH_H_
#define KESTRUN_DORN_PROGRAM_SEARCH_H_

#include <string>

#include "runtime/files/path.h"

namespace kestrun::dorn {

// The file of a build command as a shell would find it: a name with a folder as it stands, any other along PATH and
// nowhere else. Empty if there is none.
Path FindBuildCommand(const std::string& name);

// kestrun beside this program, else along PATH. Empty if there is none.
Path FindKestrun();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_PROGRAM_SEARCH_H_
