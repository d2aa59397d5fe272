#include "runtime/threads/timeout_list.h"

#include <algorithm>
#include <utility>

#include "platform/win32.h"

namespace kestrun {

// The list is a plain vector: a Reactor has a handful of timeouts.
//
// `run` keeps a callback that adds itself with a delay of 0 from running for ever: an entry is only called by a run
// that began after it was added.
std::vector<TimeoutList::Entry>::iterator TimeoutList::Find(const rc_ptr<TimeoutHandler>& handler) {
  return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.handler == handler; });
}

bool TimeoutList::Add(const rc_ptr<TimeoutHandler>& handler, u32 delayMs) {
  const u32 due = GetTickCount() + delayMs;
  const Lock lock(lock_);
  const auto entry = Find(handler);
  if (entry != entries_.end()) {
    entry->due = due;
    entry->run = run_;
  } else {
    entries_.push_back({handler, due, run_});
  }
  // A sleep that ends no later than this timeout need not be ended.
  if (!isAsleep_ || IsDue(due, sleepEnd_)) return false;
  sleepEnd_ = due;
  return true;
}

bool TimeoutList::Cancel(const rc_ptr<TimeoutHandler>& handler) {
  const Lock lock(lock_);
  const auto entry = Find(handler);
  if (entry == entries_.end()) return false;
  // The caller still has a reference, so no destructor runs under the lock.
  entries_.erase(entry);
  return true;
}

u32 TimeoutList::BeginSleep(int limitMs) {
  const Lock lock(lock_);
  const u32 now = GetTickCount();
  sleepEnd_ = now + static_cast<u32>(std::max(limitMs, 0));
  for (const Entry& entry : entries_) {
    if (!IsDue(entry.due, sleepEnd_)) sleepEnd_ = entry.due;
  }
  isAsleep_ = true;
  return IsDue(now, sleepEnd_) ? 0 : sleepEnd_ - now;
}

void TimeoutList::EndSleep() {
  const Lock lock(lock_);
  isAsleep_ = false;
}

void TimeoutList::RunDue() {
  const u32 now = GetTickCount();
  const u32 run = BeginRun();
  while (const rc_ptr<TimeoutHandler> handler = TakeDue(now, run)) handler->OnTimeout();
}

u32 TimeoutList::BeginRun() {
  const Lock lock(lock_);
  return ++run_;
}

// Takes the next handler that is due and was in the list before the run began.
rc_ptr<TimeoutHandler> TimeoutList::TakeDue(u32 now, u32 run) {
  const Lock lock(lock_);
  const auto entry = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& each) { return each.run != run && IsDue(now, each.due); });
  if (entry == entries_.end()) return nullptr;
  rc_ptr<TimeoutHandler> handler = std::move(entry->handler);
  entries_.erase(entry);
  return handler;
}

std::size_t TimeoutList::GetCount() {
  const Lock lock(lock_);
  return entries_.size();
}

}  // namespace kestrun
