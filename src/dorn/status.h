// dorn --status: the build of this user that runs now.
#ifndef KESTRUN_DORN_STATUS_H_
#define KESTRUN_DORN_STATUS_H_

#include <cstddef>
#include <string>

#include "dorn/options.h"
#include "protocol/journal_observer.h"

namespace kestrun::dorn {

// Exit code: 0, or kExitNoBuild if no build runs.
int RunStatus(const Options& options);

// For people, with line ends; at most so many lines and columns.
std::string GetStatusText(const JournalNews& news, std::size_t lines, std::size_t columns);
// One line of JSON, as docs/see-the-build.md describes it. Null is: no build runs.
std::string GetStatusJson(const JournalNews* news, const std::string& id);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_STATUS_H_
