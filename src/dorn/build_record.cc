#include "dorn/build_record.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "runtime/files/version_string.h"

namespace kestrun::dorn {

namespace {

constexpr int kRecordVersion = 1;

void WriteTimes(const JobRecord& job, std::int64_t startedUs, JsonWriter& json) {
  const auto write = [&](const char* key, std::int64_t time) {
    json.Key(key);
    if (time == JobRecord::kNone) {
      json.Null();
    } else {
      json.Int(time - startedUs);
    }
  };
  write("queued_us", job.queuedUs);
  write("started_us", job.startedUs);
  write("ended_us", job.endedUs);
}

void WriteEnd(const JobRecord& job, JsonWriter& json) {
  json.Key("slot").Known(job.slot);
  json.Key("outcome").String(GetOutcomeName(job.outcome));
  json.Key("exit_code");
  if (job.hasExitCode) {
    json.Int(job.exitCode);
  } else {
    json.Null();
  }
  json.Key("signal").Int(job.signal);
  json.Key("cpu_us").Known(job.cpuUs);
  json.Key("peak_memory_bytes").Known(job.peakMemoryBytes);
  json.Key("output_bytes").Known(job.outputBytes);
}

void WriteJob(const JobRecord& job, std::int64_t startedUs, JsonWriter& json) {
  json.NewLine().BeginObject();
  WriteJobKeys(job, json);
  json.Key("command").String(job.text.command);
  json.Key("folder").String(job.text.folder);
  WriteTimes(job, startedUs, json);
  WriteEnd(job, json);
  if (!job.outputHead.empty()) json.Key("output_head").String(job.outputHead);
  json.EndObject();
}

void WriteBuild(const BuildRecord& record, JsonWriter& json) {
  json.Key("build").BeginObject();
  WriteBuildKeys(record, json);
  json.Key("host").String(record.host);
  json.Key("kestrun_version").String(GetProgramVersion().ToString());
  json.Key("jobs_dropped").Int(static_cast<std::int64_t>(record.jobsDropped));
  json.EndObject();
}

using Spans = std::vector<std::pair<std::int64_t, std::int64_t>>;

// How long at least one of the spans lasted: jobs that share a slot overlap, and the slot is busy only once.
std::int64_t LengthOfUnion(Spans& spans) {
  std::sort(spans.begin(), spans.end());
  std::int64_t length = 0;
  std::int64_t end = 0;
  for (const auto& [from, to] : spans) {
    length += std::max(to - std::max(from, end), std::int64_t{0});
    end = std::max(end, to);
  }
  return length;
}

}  // namespace

void WriteBuildKeys(const BuildRecord& record, JsonWriter& json) {
  json.Key("started_unix_us").Int(static_cast<std::int64_t>(record.startedUnixUs));
  json.Key("duration_us").Int(record.durationUs);
  json.Key("command").String(record.command);
  json.Key("folder").String(record.folder);
  json.Key("exit_code").Int(record.exitCode);
  json.Key("slots").Int(record.slots);
}

void WriteJobKeys(const JobRecord& job, JsonWriter& json) {
  json.Key("number").Int(static_cast<std::int64_t>(job.number));
  json.Key("parent").Int(static_cast<std::int64_t>(job.parent));
  json.Key("project").String(job.text.project);
  json.Key("name").String(job.text.name);
  json.Key("client_pid").Int(job.clientProcess);
  json.Key("tool").String(job.text.tool);
}

std::string GetRecordText(const BuildRecord& record) {
  JsonWriter json;
  json.BeginObject().Key("kestrun_build_record").Int(kRecordVersion).NewLine();
  WriteBuild(record, json);
  json.NewLine().Key("jobs").BeginArray();
  for (const JobRecord& job : record.jobs) WriteJob(job, record.startedUs, json);
  json.NewLine().EndArray().EndObject();
  return json.TakeText() + "\n";
}

BuildFigures GetFigures(const BuildRecord& record) {
  BuildFigures figures;
  std::map<i32, Spans> slots;
  // Jobs whose time, and that of those below them, is in a sum already. A job comes behind the one that it is in.
  std::set<u64> counted;
  for (const JobRecord& job : record.jobs) {
    if (!HasEnded(job.outcome)) continue;
    ++figures.jobs;
    if (IsFailure(job.outcome)) ++figures.failures;
    if (job.outcome == JobOutcome::kUnknown) ++figures.unknown;
    const bool isCounted = counted.count(job.parent) != 0;
    if (!isCounted) figures.cpuUs += std::max(job.cpuUs, std::int64_t{0});
    if (!isCounted && job.cpuUs < 0) ++figures.withoutCpu;
    if (isCounted || job.cpuUs >= 0) counted.insert(job.number);
    figures.peakMemoryBytes = std::max(figures.peakMemoryBytes, job.peakMemoryBytes);
    // The last jobs may end a little behind the build command.
    const std::int64_t until = std::min(job.endedUs, record.startedUs + record.durationUs);
    if (job.startedUs >= 0 && job.startedUs < until) slots[job.slot].emplace_back(job.startedUs, until);
  }
  for (auto& [slot, spans] : slots) figures.busyUs += LengthOfUnion(spans);
  return figures;
}

}  // namespace kestrun::dorn
