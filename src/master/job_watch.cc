#include "master/job_watch.h"

#include <algorithm>
#include <vector>

#include "master/master_log.h"

namespace kestrun {

namespace {

// The factor by which the interval may grow while jobs are found to be busy.
constexpr u32 kMostSlowdown = 8;

}  // namespace

JobWatch::JobWatch(JobSlots& slots, TimeOf timeOf, u32 intervalMs)
    : slots_(slots), timeOf_(timeOf), intervalMs_(intervalMs), thread_(new Thread("Job watch")) {
  if (!thread_->Start(MakeDelegate(&JobWatch::Watch, this))) throw SyncException("no thread to watch jobs");
}

JobWatch::~JobWatch() {
  slots_.Stop();
  end_.Signal();
  thread_->Wait(kNoLimit);
}

void JobWatch::Watch() {
  u32 intervalMs = intervalMs_;
  while (!isEnding_ && slots_.AwaitWaiting()) {
    u64 before = 0;
    u64 after = 0;
    slots_.GetRunning(before);
    if (end_.Wait(intervalMs)) return;
    slots_.GetRunning(after);
    if (before != after) {
      // A job was granted or has ended: no deadlock, and no reason to read processor times.
      intervalMs = intervalMs_;
    } else if (AreIdle(intervalMs_, after)) {
      // Refused if a job was granted or has ended since the times were read.
      if (slots_.GrantBeyond(after)) WriteMasterLog(Log::Info, "A job runs beside the limit: all others are idle");
    } else {
      intervalMs = std::min(intervalMs * 2, intervalMs_ * kMostSlowdown);
    }
  }
}

bool JobWatch::AreIdle(u32 intervalMs, u64& generation) {
  const auto sum = [&] {
    u64 time = 0;
    for (const u32 process : slots_.GetRunning(generation)) time += timeOf_(process);
    return time;
  };
  const u64 before = sum();
  const u64 generationBefore = generation;
  isEnding_ = end_.Wait(intervalMs);
  return !isEnding_ && sum() == before && generation == generationBefore;
}

}  // namespace kestrun
