// One build with its master, from start to end.
#ifndef KESTRUN_DORN_SESSION_H_
#define KESTRUN_DORN_SESSION_H_

#include "dorn/options.h"

namespace kestrun::dorn {

// dorn's own exit codes, away from those that build commands use.
inline constexpr int kExitFailure = 125;          // the master could not be had
inline constexpr int kExitCannotStart = 126;      // the build command is there but could not be started
inline constexpr int kExitCommandNotFound = 127;  // no such build command
inline constexpr int kExitInterrupted = 130;      // ended by force after Ctrl-C

// Starts a master, runs the build command, ends the master, and gives the exit code. Nothing that either of them
// started is left when it returns. Blocks for the life of the build. Throws SystemException.
int RunSession(const Options& options);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SESSION_H_
