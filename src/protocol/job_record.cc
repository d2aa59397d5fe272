#include "protocol/job_record.h"

#include <chrono>
#include <cstring>
#include <type_traits>

namespace kestrun {

namespace {

constexpr std::size_t kTexts = 6;

// The numbers of a record, which are sent in front of its texts. Both ends are the same build on one machine, so the
// structure is sent as it is in memory.
struct RecordHeader {
  u64 number;
  u64 parent;
  std::int64_t queuedUs;
  std::int64_t startedUs;
  std::int64_t endedUs;
  std::int64_t cpuUs;
  std::int64_t peakMemoryBytes;
  std::int64_t outputBytes;
  u32 clientProcess;
  u32 rootProcess;
  i32 slot;
  u32 outcome;
  u32 hasExitCode;
  i32 exitCode;
  i32 signal;
  u32 sizes[kTexts];
  u32 unused = 0;
};
static_assert(std::is_trivially_copyable_v<RecordHeader> && std::is_trivially_copyable_v<JournalState>);

template <class Clock>
std::int64_t MicrosecondsOf() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

RecordHeader HeaderOf(const JobRecord& record) {
  return {record.number,
          record.parent,
          record.queuedUs,
          record.startedUs,
          record.endedUs,
          record.cpuUs,
          record.peakMemoryBytes,
          record.outputBytes,
          record.clientProcess,
          record.rootProcess,
          record.slot,
          static_cast<u32>(record.outcome),
          record.hasExitCode ? 1u : 0u,
          record.exitCode,
          record.signal,
          {}};
}

void Take(const RecordHeader& header, JobRecord& record) {
  record.number = header.number;
  record.parent = header.parent;
  record.queuedUs = header.queuedUs;
  record.startedUs = header.startedUs;
  record.endedUs = header.endedUs;
  record.cpuUs = header.cpuUs;
  record.peakMemoryBytes = header.peakMemoryBytes;
  record.outputBytes = header.outputBytes;
  record.clientProcess = header.clientProcess;
  record.rootProcess = header.rootProcess;
  record.slot = header.slot;
  // A number that does not fit is not trusted, since any process of the user can send these bytes.
  record.outcome = header.outcome <= static_cast<u32>(JobOutcome::kUnknown) ? static_cast<JobOutcome>(header.outcome)
                                                                            : JobOutcome::kUnknown;
  record.hasExitCode = header.hasExitCode != 0;
  record.exitCode = header.exitCode;
  record.signal = header.signal;
}

bool DecodeRecord(std::string_view& bytes, JobRecord& record) {
  RecordHeader header;
  if (bytes.size() < sizeof header) return false;
  std::memcpy(&header, bytes.data(), sizeof header);
  bytes.remove_prefix(sizeof header);
  Take(header, record);
  std::string* const texts[kTexts] = {&record.text.project, &record.text.name,   &record.text.tool,
                                      &record.text.command, &record.text.folder, &record.outputHead};
  for (std::size_t i = 0; i < kTexts; ++i) {
    if (bytes.size() < header.sizes[i]) return false;
    texts[i]->assign(bytes.substr(0, header.sizes[i]));
    bytes.remove_prefix(header.sizes[i]);
  }
  return true;
}

}  // namespace

const char* GetOutcomeName(JobOutcome outcome) {
  static constexpr const char* kNames[] = {"waiting",   "running",   "ok",      "failed",
                                           "signalled", "cancelled", "overdue", "unknown"};
  return kNames[static_cast<u32>(outcome)];
}

std::int64_t SteadyMicroseconds() {
  return MicrosecondsOf<std::chrono::steady_clock>();
}

u64 UnixMicroseconds() {
  return static_cast<u64>(MicrosecondsOf<std::chrono::system_clock>());
}

std::string EncodeState(const JournalState& state) {
  return std::string(reinterpret_cast<const char*>(&state), sizeof state);
}

bool DecodeState(std::string_view bytes, JournalState& state) {
  if (bytes.size() != sizeof state) return false;
  std::memcpy(&state, bytes.data(), sizeof state);
  return true;
}

void EncodeRecord(const JobRecord& record, std::string& bytes) {
  const std::string_view texts[kTexts] = {record.text.project, record.text.name,   record.text.tool,
                                          record.text.command, record.text.folder, record.outputHead};
  RecordHeader header = HeaderOf(record);
  for (std::size_t i = 0; i < kTexts; ++i) header.sizes[i] = static_cast<u32>(texts[i].size());
  bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
  for (const std::string_view text : texts) bytes += text;
}

bool DecodeRecords(std::string_view bytes, std::vector<JobRecord>& records) {
  while (!bytes.empty()) {
    JobRecord record;
    if (!DecodeRecord(bytes, record)) return false;
    records.push_back(std::move(record));
  }
  return true;
}

}  // namespace kestrun
