// What dorn knows of its build when it is over.
#ifndef KESTRUN_DORN_BUILD_RECORD_H_
#define KESTRUN_DORN_BUILD_RECORD_H_

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/job_record.h"
#include "runtime/base/json_text.h"
#include "runtime/base/types.h"

namespace kestrun::dorn {

// The times of the jobs are those of the machine's steady clock, on which the build started at startedUs.
struct BuildRecord {
  std::int64_t startedUs = 0;
  u64 startedUnixUs = 0;
  std::int64_t durationUs = 0;
  std::string command;
  std::string folder;
  std::string host;
  int exitCode = 0;
  u32 slots = 0;
  u64 jobsDropped = 0;
  std::vector<JobRecord> jobs;  // by number
};

// The record as JSON, as docs/see-the-build.md describes it; ends with a line end.
std::string GetRecordText(const BuildRecord& record);

// Keys that the texts of the record, the history and the status have in common, into an object that is open: of the
// build from "started_unix_us" to "slots", of a job from "number" to "tool".
void WriteBuildKeys(const BuildRecord& record, JsonWriter& json);
void WriteJobKeys(const JobRecord& job, JsonWriter& json);

// The same build in the trace-event format.
std::string GetTraceText(const BuildRecord& record);

// What was built, in a few numbers.
struct BuildFigures {
  u64 jobs = 0;                       // that have ended
  u64 failures = 0;                   // of those
  u64 unknown = 0;                    // of those, without a known outcome
  std::int64_t cpuUs = 0;             // of all jobs as far as it is known, each counted once: a job holds those in it
  u64 withoutCpu = 0;                 // jobs of which no time is in cpuUs
  std::int64_t busyUs = 0;            // of all slots together: the time in which a job ran there
  std::int64_t peakMemoryBytes = -1;  // of the largest process that is known
};
BuildFigures GetFigures(const BuildRecord& record);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_BUILD_RECORD_H_
