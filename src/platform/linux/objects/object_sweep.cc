// Order of locks: the gate, then one bucket at a time. A bucket behind which a stopped process sits is skipped after a
// short wait, and the marks of the dead then stay, so that their process slots are not given out again.
#include "platform/linux/objects/object_sweep.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <memory>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/objects/lock_holder.h"
#include "platform/linux/objects/object_folder.h"
#include "platform/linux/objects/robust_mutex.h"

namespace kestrun::platform {

namespace {

constexpr const char* kStampFile = ".sweep";
constexpr time_t kIntervalSeconds = 60;

// True if the last sweep by any process is long enough ago; the stamp then says "now".
bool RenewStamp(int folder) {
  struct stat status {};
  const bool isStamped = fstatat(folder, kStampFile, &status, AT_SYMLINK_NOFOLLOW) == 0;
  // File times are taken from the coarse clock, which may lag the exact one by some milliseconds; with the exact clock
  // a fresh stamp could seem old.
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  // A stamp in the future was written before the clock was set back, and counts as old.
  const time_t age = now.tv_sec - status.st_mtim.tv_sec;
  if (isStamped && age >= 0 && age < kIntervalSeconds) return false;
  FileDescriptor stamp(openat(folder, kStampFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_CREAT, 0600));
  return stamp && futimens(stamp.get(), nullptr) == 0;
}

enum class Swept { kNothing, kFreed, kLocked };

// Removes the marks of dead processes from one slot, and reclaims it if no others are left. kFreed if it had such
// marks, or was claimed by a dead process; kLocked, with nothing done, if the lock of its bucket timed out.
Swept SweepSlot(ObjectLayout& layout, ObjectSlots& slots, unsigned slot, const ProcessSet& dead, DWORD limitMs) {
  ObjectSlot& object = slots[slot];
  const SlotState state = slots.State(slot);
  if (state.phase == SlotPhase::kFree) return Swept::kNothing;
  const auto isDead = [&dead](unsigned process) { return dead.Has(process); };
  // A process that sweeps while it enters the table has no process slot yet and claims slots as kMaxProcesses. It does
  // so under the gate, which this process holds now; so a slot that is still claimed in that way belongs to a process
  // that died during its sweep.
  const bool isUnfinished = state.phase == SlotPhase::kClaimed && (state.owner == kMaxProcesses || isDead(state.owner));
  // As long as the slot has such a mark, no other process reclaims it, so it stays the same object during the next
  // steps.
  if (!isUnfinished && !object.held.Any(isDead) && !object.pinned.Any(isDead)) return Swept::kNothing;
  {
    ObjectBucket& bucket = layout.buckets[object.bucket % kObjectBuckets];
    const RobustLock lock(bucket.mutex, limitMs);
    if (!lock) return Swept::kLocked;
    object.held.RemoveAll(dead);
    object.pinned.RemoveAll(dead);
    if (object.held.IsEmpty()) slots.Unlink(bucket, slot);
  }
  if (isUnfinished) {
    slots.Free(slot);
  } else if (object.pinned.IsEmpty()) {
    slots.Reclaim(slot, state.generation);
  }
  return Swept::kFreed;
}

}  // namespace

int SweepTable(ObjectLayout& layout, const ProcessSlots& processes, ObjectSlots& slots) {
  const auto dead = std::make_unique<ProcessSet>();
  int processesFreed = 0;
  for (unsigned process = 0; process < kMaxProcesses; ++process) {
    if (!processes.IsStale(process)) continue;
    dead->Add(process);
    ++processesFreed;
  }
  if (processesFreed == 0) return 0;
  const unsigned used = slots.Used();
  int objectsFreed = 0;
  DWORD limitMs = kShortLockLimitMs;
  for (unsigned slot = 0; slot < used; ++slot) {
    const Swept swept = SweepSlot(layout, slots, slot, *dead, limitMs);
    if (swept == Swept::kFreed) ++objectsFreed;
    if (swept == Swept::kLocked) limitMs = 0;
  }
  // Slots that were skipped may still have marks of the dead, whose process slots must then not be freed.
  if (limitMs == 0) return objectsFreed;
  dead->Any([&layout](unsigned process) {
    layout.hasMarks[process].store(0);
    return false;
  });
  return processesFreed + objectsFreed;
}

bool SweepIsDue() {
  // When this process last read the stamp. Most calls then end here, with a clock that is read without a system call.
  static std::atomic<time_t> lastCheck{-kIntervalSeconds};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  // Relaxed: the time guards no other data, and the exchange lets one thread through.
  time_t last = lastCheck.load(std::memory_order_relaxed);
  if (now.tv_sec - last < kIntervalSeconds || !lastCheck.compare_exchange_strong(last, now.tv_sec)) return false;
  const int folder = ObjectFolderDescriptor();
  return folder >= 0 && RenewStamp(folder);
}

}  // namespace kestrun::platform
