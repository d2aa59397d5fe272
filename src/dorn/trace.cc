// The build in the trace-event format. Each slot is a row; a job whose time overlaps another one's in the same slot
// without lying within it gets a further row of that slot, because readers of the format nest what overlaps. The time
// in the queue is an asynchronous span of its own, and two counters show how many jobs run and wait.
#include <algorithm>
#include <map>
#include <vector>

#include "dorn/build_record.h"
#include "protocol/job_label.h"
#include "runtime/base/json_text.h"

namespace kestrun::dorn {

namespace {

constexpr int kProcess = 1;
// The most rows that one slot gets; jobs beyond that share the last one.
constexpr int kLanes = 64;
constexpr int kRowOfUnknown = 0;

// Rows are numbered by slot and lane, so that readers that sort by number show them in order.
int RowOf(i32 slot, int lane) {
  return slot < 0 ? kRowOfUnknown : 1 + slot * kLanes + std::min(lane, kLanes - 1);
}

class TraceWriter {
 public:
  explicit TraceWriter(const BuildRecord& record) : record_(record) {
    for (const JobRecord& job : record.jobs) jobs_.push_back(&job);
    // A job that lies within another one comes behind it.
    std::stable_sort(jobs_.begin(), jobs_.end(), [this](const JobRecord* one, const JobRecord* other) {
      if (one->startedUs != other->startedUs) return one->startedUs < other->startedUs;
      return EndOf(*one) > EndOf(*other);
    });
  }

  std::string Write() {
    json_.BeginObject();
    json_.Key("displayTimeUnit").String("ms");
    json_.Key("otherData").BeginObject();
    json_.Key("kestrun_trace").Int(1).Key("command").String(record_.command);
    json_.EndObject().NewLine().Key("traceEvents").BeginArray();
    WriteName("process_name", 0, record_.command);
    for (const JobRecord* job : jobs_) WriteQueued(*job);
    for (const JobRecord* job : jobs_) WriteRun(*job);
    for (const auto& [row, name] : rows_) WriteName("thread_name", row, name);
    WriteCounters();
    json_.NewLine().EndArray().EndObject();
    return json_.TakeText() + "\n";
  }

 private:
  std::int64_t At(std::int64_t time) const { return std::max(time - record_.startedUs, std::int64_t{0}); }
  std::int64_t BuildEnd() const { return record_.startedUs + record_.durationUs; }
  std::int64_t EndOf(const JobRecord& job) const { return job.endedUs >= 0 ? job.endedUs : BuildEnd(); }

  void Begin(const char* phase, int row, std::int64_t time) {
    json_.NewLine().BeginObject();
    json_.Key("ph").String(phase).Key("pid").Int(kProcess).Key("tid").Int(row).Key("ts").Int(time);
  }

  void WriteName(const char* kind, int row, const std::string& name) {
    Begin("M", row, 0);
    json_.Key("name").String(kind).Key("args").BeginObject().Key("name").String(name).EndObject().EndObject();
  }

  void WriteQueued(const JobRecord& job) {
    const std::int64_t until = job.startedUs >= 0 ? job.startedUs : EndOf(job);
    for (const bool isBegin : {true, false}) {
      Begin(isBegin ? "b" : "e", 0, At(isBegin ? job.queuedUs : until));
      json_.Key("cat").String("queue").Key("id").Int(static_cast<std::int64_t>(job.number));
      json_.Key("name").String("waits: " + GetLabel(job.text)).EndObject();
    }
  }

  // The first lane of the slot in which the job lies within what runs there, or behind it.
  int LaneOf(const JobRecord& job) {
    std::vector<std::vector<std::int64_t>>& lanes = ends_[job.slot];
    for (std::size_t lane = 0;; ++lane) {
      if (lane == lanes.size()) lanes.emplace_back();
      std::vector<std::int64_t>& open = lanes[lane];
      while (!open.empty() && open.back() <= job.startedUs) open.pop_back();
      if (!open.empty() && open.back() < EndOf(job)) continue;
      open.push_back(EndOf(job));
      return static_cast<int>(lane);
    }
  }

  void WriteRun(const JobRecord& job) {
    if (job.startedUs < 0) return;
    const int lane = LaneOf(job);
    const int row = RowOf(job.slot, lane);
    const std::string slot = job.slot < 0 ? "no slot" : "slot " + std::to_string(job.slot);
    rows_[row] = lane == 0 || job.slot < 0 ? slot : slot + " (" + std::to_string(lane + 1) + ")";
    Begin("X", row, At(job.startedUs));
    json_.Key("dur").Int(EndOf(job) - job.startedUs);
    json_.Key("cat").String(GetOutcomeName(job.outcome)).Key("name").String(GetLabel(job.text));
    WriteArguments(job);
    json_.EndObject();
  }

  void WriteArguments(const JobRecord& job) {
    json_.Key("args").BeginObject();
    json_.Key("number").Int(static_cast<std::int64_t>(job.number));
    json_.Key("parent").Int(static_cast<std::int64_t>(job.parent));
    json_.Key("command").String(job.text.command).Key("folder").String(job.text.folder);
    json_.Key("outcome").String(GetOutcomeName(job.outcome));
    if (job.hasExitCode) json_.Key("exit_code").Int(job.exitCode);
    if (job.signal != 0) json_.Key("signal").Int(job.signal);
    json_.Key("queue_us").Int(job.startedUs - job.queuedUs);
    if (job.cpuUs >= 0) json_.Key("cpu_us").Int(job.cpuUs);
    if (job.peakMemoryBytes >= 0) json_.Key("peak_memory_bytes").Int(job.peakMemoryBytes);
    json_.EndObject();
  }

  void WriteCounters() {
    struct Step {
      int running = 0;
      int waiting = 0;
    };
    // The changes of one moment are added up first, so that a job that follows another one makes no spike.
    std::map<std::int64_t, Step> steps;
    for (const JobRecord* job : jobs_) {
      ++steps[At(job->queuedUs)].waiting;
      --steps[At(job->startedUs >= 0 ? job->startedUs : EndOf(*job))].waiting;
      if (job->startedUs < 0) continue;
      ++steps[At(job->startedUs)].running;
      --steps[At(EndOf(*job))].running;
    }
    Step sum;
    for (const auto& [time, step] : steps) {
      sum.running += step.running;
      sum.waiting += step.waiting;
      WriteCounter("running", time, sum.running);
      WriteCounter("waiting", time, sum.waiting);
    }
  }

  void WriteCounter(const char* name, std::int64_t time, int value) {
    Begin("C", 0, time);
    json_.Key("name").String(name).Key("args").BeginObject().Key("jobs").Int(value).EndObject().EndObject();
  }

  const BuildRecord& record_;
  std::vector<const JobRecord*> jobs_;
  JsonWriter json_;
  std::map<i32, std::vector<std::vector<std::int64_t>>> ends_;  // by slot and lane: of what runs, the innermost last
  std::map<int, std::string> rows_;
};

}  // namespace

std::string GetTraceText(const BuildRecord& record) {
  return TraceWriter(record).Write();
}

}  // namespace kestrun::dorn
