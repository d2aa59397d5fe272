#ifndef KESTRUN_FRONTEND_USAGE_H_
#define KESTRUN_FRONTEND_USAGE_H_

namespace kestrun {

// The version line and the options that are for users, on the standard output stream.
void PrintUsage();

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_USAGE_H_
