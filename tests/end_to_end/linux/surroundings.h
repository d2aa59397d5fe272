// Narrower surroundings than a program is used to, laid around a command by the process that then becomes it.
#ifndef KESTRUN_TESTS_END_TO_END_LINUX_SURROUNDINGS_H_
#define KESTRUN_TESTS_END_TO_END_LINUX_SURROUNDINGS_H_

#include <string>

#include "support/child.h"

namespace kestrun::test {

// The command line that runs COMMAND in the surroundings of these words, which are applied in their order:
//
//   refuse:N=ERROR            the system call N fails with ERROR
//   refuse:N:COMMAND=ERROR    the same where COMMAND is its second argument
//   processes=0               no process can be made any more, threads can
//   tasks=N                   how many processes and threads the user may have; root is not limited
//   files=N  memory=N         the limits of open files, and of address space in bytes
//   filesize=N                the limit of a file's size in bytes
//   mount:FOLDER=SIZE         a new file system of SIZE bytes on FOLDER; read-only if SIZE is 0
//   user=N                    another user and group, with no privileges
//   ticks=N                   a system that has run for N milliseconds so far
//
// Ends with 77 and the reason if the system does not let us.
Words Within(const Words& surroundings, const Words& command);

inline constexpr int kNotPossible = 77;

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_LINUX_SURROUNDINGS_H_
