// One build under the user's master, from start to end.
#ifndef KESTRUN_DORN_SESSION_H_
#define KESTRUN_DORN_SESSION_H_

#include "dorn/options.h"

namespace kestrun::dorn {

// Joins or starts a master, runs the build command, leaves the master, and gives the exit code. Nothing that the build
// started is left when it returns, and no master unless another dorn uses it. Blocks for the life of the build. Throws
// SystemException.
int RunSession(const Options& options);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SESSION_H_
