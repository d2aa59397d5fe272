#include "dorn/summary.h"

#include <algorithm>
#include <cstdio>

#include "protocol/job_label.h"

namespace kestrun::dorn {

namespace {

constexpr std::size_t kMostFailures = 10;
constexpr std::size_t kSlowest = 5;
constexpr std::int64_t kSecondUs = 1000000;

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::int64_t LengthOf(const JobRecord& job) {
  return job.startedUs >= 0 && job.endedUs >= 0 ? job.endedUs - job.startedUs : -1;
}

std::string EndOf(const JobRecord& job) {
  if (job.outcome == JobOutcome::kOverdue) return "took too long";
  if (job.outcome == JobOutcome::kSignalled) return "signal " + std::to_string(job.signal);
  return "exit code " + std::to_string(job.exitCode);
}

std::string CountOf(u64 count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Headline(const BuildRecord& record, const BuildFigures& figures) {
  std::string line = CountOf(figures.jobs, "job") + " in " + FormatSpan(record.durationUs);
  // Where the system tells the time of no job, a sum of 0 would be a false statement.
  if (figures.withoutCpu < figures.jobs) {
    line += figures.withoutCpu > 0 ? ", processor time at least " : ", processor time ";
    line += FormatSpan(figures.cpuUs);
  }
  if (record.slots > 0 && record.durationUs > 0) {
    const double share = static_cast<double>(figures.busyUs) / static_cast<double>(record.durationUs) / record.slots;
    line += ", " + CountOf(record.slots, "slot") + Format(" %.0f %% busy", share * 100);
  }
  if (figures.peakMemoryBytes > 0) line += ", largest process " + FormatBytes(figures.peakMemoryBytes);
  if (figures.unknown > 0) line += ", " + std::to_string(figures.unknown) + " of unknown outcome";
  if (record.jobsDropped > 0) line += ", and " + CountOf(record.jobsDropped, "job") + " of which the record was lost";
  return line;
}

void AddFailures(const BuildRecord& record, u64 count, std::vector<std::string>& lines) {
  if (count == 0) return;
  lines.push_back(std::to_string(count) + " failed:");
  std::size_t listed = 0;
  for (const JobRecord& job : record.jobs) {
    if (!IsFailure(job.outcome)) continue;
    if (listed++ == kMostFailures) break;
    const std::string label = GetLabel(job.text);
    lines.push_back("  " + label + " (" + EndOf(job) + ")" +
                    (label == job.text.command ? "" : ": " + job.text.command));
  }
  if (count > kMostFailures) lines.push_back("  and " + std::to_string(count - kMostFailures) + " more");
}

void AddSlowest(const BuildRecord& record, std::vector<std::string>& lines) {
  std::vector<const JobRecord*> jobs;
  for (const JobRecord& job : record.jobs) {
    if (LengthOf(job) >= 0) jobs.push_back(&job);
  }
  const std::size_t count = std::min(kSlowest, jobs.size());
  std::partial_sort(jobs.begin(), jobs.begin() + static_cast<std::ptrdiff_t>(count), jobs.end(),
                    [](const JobRecord* one, const JobRecord* other) { return LengthOf(*one) > LengthOf(*other); });
  // The slowest of a few is the list of all.
  if (jobs.size() <= 1) return;
  lines.push_back("slowest:");
  for (std::size_t i = 0; i < count; ++i) {
    lines.push_back("  " + FormatSpan(LengthOf(*jobs[i])) + "  " + GetLabel(jobs[i]->text));
  }
}

// Breaks a line behind commas, so that it loses nothing where it is longer than the terminal is wide.
void AddWrapped(std::string line, std::size_t columns, std::vector<std::string>& lines) {
  while (line.size() > columns) {
    const std::size_t comma = line.rfind(", ", columns - 1);
    if (comma == std::string::npos) break;
    lines.push_back(line.substr(0, comma + 1));
    line = "  " + line.substr(comma + 2);
  }
  lines.push_back(line);
}

}  // namespace

std::vector<std::string> GetSummary(const BuildRecord& record, std::size_t columns) {
  const BuildFigures figures = GetFigures(record);
  std::vector<std::string> lines;
  if (figures.jobs == 0) return lines;
  AddWrapped(Headline(record, figures), columns, lines);
  AddFailures(record, figures.failures, lines);
  AddSlowest(record, lines);
  for (std::string& line : lines) line = FitLine(line, columns);
  return lines;
}

std::string FormatSpan(std::int64_t microseconds) {
  const std::int64_t seconds = microseconds / kSecondUs;
  if (seconds < 10) return Format("%.2f s", static_cast<double>(microseconds) / kSecondUs);
  if (seconds < 60) return Format("%.1f s", static_cast<double>(microseconds) / kSecondUs);
  if (seconds < 3600) return std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s";
  return std::to_string(seconds / 3600) + " h " + std::to_string(seconds % 3600 / 60) + " min";
}

std::string FormatBytes(std::int64_t bytes) {
  constexpr double kKiB = 1024;
  if (bytes < 10 * 1024 * 1024) return Format("%.0f KiB", static_cast<double>(bytes) / kKiB);
  return Format("%.0f MiB", static_cast<double>(bytes) / kKiB / kKiB);
}

}  // namespace kestrun::dorn
