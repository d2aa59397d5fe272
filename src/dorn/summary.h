// A build in a few lines.
#ifndef KESTRUN_DORN_SUMMARY_H_
#define KESTRUN_DORN_SUMMARY_H_

#include <string>
#include <vector>

#include "dorn/build_record.h"

namespace kestrun::dorn {

// Lines without their ends, each of at most so many columns: jobs, times, load of the slots, memory, the failures by
// name, the slowest jobs. None if nothing went through the master.
std::vector<std::string> GetSummary(const BuildRecord& record, std::size_t columns);

// "0.42 s", "12.3 s", "3 min 5 s", "2 h 7 min".
std::string FormatSpan(std::int64_t microseconds);
// "312 MiB".
std::string FormatBytes(std::int64_t bytes);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_SUMMARY_H_
