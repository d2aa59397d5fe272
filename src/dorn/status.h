// Shows the build of this user that runs now (dorn --status).
//
// The master is found by the record that dorns share, or by its id if it was started by hand, and asked for a snapshot
// of its jobs. To ask changes nothing in the master or its build. One thread; failures are reported on the standard
// error stream and by the exit code.
#ifndef KESTRUN_DORN_STATUS_H_
#define KESTRUN_DORN_STATUS_H_

#include <cstddef>
#include <string>

#include "dorn/options.h"
#include "protocol/journal_observer.h"

namespace kestrun::dorn {

// Exit code: 0; kExitNoBuild if no build runs; kExitFailure if there is a master that does not answer or refuses.
int RunStatus(const Options& options);

// The text for people, with line ends: at most so many lines, each of at most so many columns.
std::string GetStatusText(const JournalNews& news, std::size_t lines, std::size_t columns);
// One line of JSON, as docs/see-the-build.md describes it. Null is: no build runs.
std::string GetStatusJson(const JournalNews* news, const std::string& id);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_STATUS_H_
