#ifndef KESTRUN_DORN_EXIT_CODES_H_
#define KESTRUN_DORN_EXIT_CODES_H_

#include "runtime/base/types.h"

namespace kestrun::dorn {

// dorn's own exit codes, away from those that build commands use. One whose build was ended by force after an
// interruption ends as a shell says it of the signal.
inline constexpr int kExitNoBuild = 1;            // --status: no build runs
inline constexpr int kExitFailure = 125;          // the master could not be had
inline constexpr int kExitCannotStart = 126;      // the build command is there but could not be started
inline constexpr int kExitCommandNotFound = 127;  // no such build command
inline constexpr u32 kExitHungUp = 129;
inline constexpr u32 kExitInterrupted = 130;
inline constexpr u32 kExitTerminated = 143;

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_EXIT_CODES_H_
