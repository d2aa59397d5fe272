// The records that a master sends to observers about its jobs, and their byte form in a MSG_JOURNAL.
//
// Times are microseconds of one clock that all processes of the machine share (SteadyMicroseconds). Plain values; one
// thread at a time.
#ifndef KESTRUN_PROTOCOL_JOB_RECORD_H_
#define KESTRUN_PROTOCOL_JOB_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/base/types.h"

namespace kestrun {

// Texts of a job, as bytes: they come from command lines and need not be of any encoding.
struct JobText {
  std::string project;
  std::string name;  // -n
  std::string tool;  // file name of the tool, or as it was typed
  std::string command;
  std::string folder;
};

enum class JobOutcome : u32 {
  kWaiting = 0,
  kRunning = 1,
  kOk = 2,
  kFailed = 3,
  kSignalled = 4,
  kCancelled = 5,
  kOverdue = 6,
  kUnknown = 7,  // it has ended, and the system did not tell how
};

// False for a job that waits or runs.
inline bool HasEnded(JobOutcome outcome) {
  return outcome != JobOutcome::kWaiting && outcome != JobOutcome::kRunning;
}
// True for an outcome that a build counts as a failure. A cancelled job does not count: its client has gone, so its end
// says nothing about the build.
inline bool IsFailure(JobOutcome outcome) {
  return outcome == JobOutcome::kFailed || outcome == JobOutcome::kSignalled || outcome == JobOutcome::kOverdue;
}
// "ok", "failed" and so on.
const char* GetOutcomeName(JobOutcome outcome);

struct JobRecord {
  // The value of a time or size that is not known or does not exist yet.
  static constexpr std::int64_t kNone = -1;

  u64 number = 0;         // from 1 upward, in the order in which the master learned of the jobs
  u64 parent = 0;         // the job whose process started this one's client, or a process above that; 0: none
  u32 clientProcess = 0;  // 0: unknown
  u32 rootProcess = 0;    // the observer that asked for the jobs below it and has this one there; 0: none, or unknown
  std::int64_t queuedUs = kNone;
  std::int64_t startedUs = kNone;
  std::int64_t endedUs = kNone;
  i32 slot = -1;
  JobOutcome outcome = JobOutcome::kWaiting;
  bool hasExitCode = false;
  i32 exitCode = 0;
  i32 signal = 0;
  std::int64_t cpuUs = kNone;
  std::int64_t peakMemoryBytes = kNone;  // of its largest process
  std::int64_t outputBytes = kNone;
  JobText text;
  std::string outputHead;  // of a failed job, where the master has collected its output
};

// The master as a whole, at the time of a message.
struct JournalState {
  std::int64_t nowUs = 0;
  std::int64_t startedUs = 0;  // when the master was ready
  u64 startedUnixUs = 0;       // the same since 1970
  u64 done = 0;                // jobs that have ended, since the master started
  u64 failed = 0;              // of those
  u64 unknown = 0;             // of those, without a known outcome, like tools of clients while nothing followed
  u64 running = 0;
  u64 waiting = 0;
  u64 missed = 0;  // records that this observer should have got and will not get: it was too slow
  u32 slots = 0;
  u32 masterProcess = 0;
  u32 isLast = 0;  // 1: the end of a snapshot, or of what was there when the observer asked for a flush
};

std::int64_t SteadyMicroseconds();
// Since 1970.
u64 UnixMicroseconds();

std::string EncodeState(const JournalState& state);
// False for bytes that are no state.
bool DecodeState(std::string_view bytes, JournalState& state);

// Appends the record to `bytes`.
void EncodeRecord(const JobRecord& record, std::string& bytes);
// Reads all records of a message. False for bytes that are no records; `records` then has those in front of the fault.
bool DecodeRecords(std::string_view bytes, std::vector<JobRecord>& records);

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_JOB_RECORD_H_
