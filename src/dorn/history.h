// The builds of this user that are over: a file in the common folder with one line of JSON each.
//
// dorns that end together add their lines one after the other. The oldest lines go when the file has grown to some
// megabytes. Failures are lines on the standard error stream.
#ifndef KESTRUN_DORN_HISTORY_H_
#define KESTRUN_DORN_HISTORY_H_

#include <string>

#include "dorn/build_record.h"

namespace kestrun::dorn {

// With Extensions/BuildHistory.
bool IsHistoryWanted();

void AddToHistory(const BuildRecord& record);

// The line, with its end.
std::string GetHistoryLine(const BuildRecord& record);

// All lines on the standard output, the oldest first. The program's exit code.
int ListHistory();

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_HISTORY_H_
