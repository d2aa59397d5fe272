// Running processes by name. A name matches a process's file name with or without its ending, case and all, and a name
// that ends in ".exe" also a program file that has no ending; a process that this user may not look at does not match.
#ifndef KESTRUN_RUNTIME_PROCESS_PROCESS_LIST_H_
#define KESTRUN_RUNTIME_PROCESS_PROCESS_LIST_H_

#include <string>

#include "runtime/base/rc_ptr.h"
#include "runtime/process/process.h"

namespace kestrun {

// How many running processes bear the name; 0 if the system gives no list. At most 1024 processes are looked at.
int CountProcesses(const std::string& name);

// The first of them in the system's order, with a handle that can be waited on; empty if there is none. For users of
// the library; the program itself only counts.
rc_ptr<Process> FindProcess(const std::string& name);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_PROCESS_PROCESS_LIST_H_
